#include "buffer/wav_capture.h"

#include <fcntl.h>

#include <fstream>
#include <thread>

#include "tests/buffer/buffer_fixture.h"
#include "tests/buffer/recorded_file.h"
#include "tests/support/process.h"

namespace kvox {
namespace {

constexpr KvoxTapFormat kFormat = {.sample_rate = 48000, .channels = 2, .bytes_per_sample = 2};
constexpr uint32_t kPayload = 1920;

/// A file whose first write waits until it is let go.
class BlockedFile : public CaptureFile {
 public:
  BlockedFile(std::atomic<bool>& blocked, std::unique_ptr<CaptureFile> file)
      : blocked_(blocked), file_(std::move(file)) {}
  ssize_t Write(std::span<const std::byte> bytes) override {
    entered = true;
    blocked_.wait(true);
    return file_->Write(bytes);
  }
  bool Rewind() override { return file_->Rewind(); }

  static inline std::atomic<bool> entered = false;

 private:
  std::atomic<bool>& blocked_;
  const std::unique_ptr<CaptureFile> file_;
};

class WavCaptureTest : public ::testing::Test {
 protected:
  static void Record(WavCapture& capture, uint32_t number, const KvoxTapFormat& format = kFormat) {
    const Bytes packet = MakePacket(number, kPayload, format);
    KvoxPacketHeader header;
    std::memcpy(&header, packet.data(), sizeof header);
    capture.Record(header, std::span(packet).subspan(kPacketHeaderSize));
  }

  static std::string PayloadOf(uint32_t number) {
    const Bytes packet = MakePacket(number, kPayload);
    return {reinterpret_cast<const char*>(packet.data()) + kPacketHeaderSize, kPayload};
  }

  int32_t Start(WavCapture& capture) { return capture.Start(path_, message_); }
  int32_t Stop(WavCapture& capture) { return capture.Stop(message_); }

  LogCapture log_;
  TempDirectory directory_;
  const std::string path_ = directory_ / "a.wav";
  std::string message_;
};

TEST_F(WavCaptureTest, TheFileHoldsWhatPassedBetweenStartAndStop) {
  WavCapture capture("tapout0");
  EXPECT_EQ(Stop(capture), -1);
  EXPECT_EQ(message_, "CaptureStop tapout0 buffer: Capture not started");
  std::ofstream(path_) << std::string(1 << 20, 'x');
  for (int pass = 0; pass < 2; ++pass) {
    Record(capture, 1);
    ASSERT_EQ(Start(capture), 0);
    EXPECT_EQ(message_, "CaptureStart tapout0 buffer " + path_);
    EXPECT_EQ(Start(capture), -1);
    EXPECT_EQ(message_, "CaptureStart tapout0 buffer " + path_ + ": Error, already enabled");
    EXPECT_TRUE(capture.recording());
    std::string expected = HeaderOf(48000, 2, 16, 480 * 2000, WavFormat_t::kPcm);
    for (uint32_t number = 1; number <= 2000; ++number) {
      Record(capture, number);  // more than the ring holds
      expected += PayloadOf(number);
      if (number % 500 == 0) {
        ASSERT_TRUE(WaitFor([&] { return capture.samples() == 480 * number; }));
      }
    }
    ASSERT_EQ(Stop(capture), 0);
    EXPECT_EQ(message_, "CaptureStop tapout0 buffer " + path_ + ", 960000 samples");
    EXPECT_FALSE(capture.recording());
    Record(capture, 9);
    EXPECT_TRUE(ReadText(path_) == expected);
  }
  EXPECT_EQ(log_.Count("W "), 0u);
}

TEST_F(WavCaptureTest, EndsByItselfWhenTheFormatChanges) {
  WavCapture capture("tapout0");
  ASSERT_EQ(Start(capture), 0);
  Record(capture, 1);
  Record(capture, 2, {.sample_rate = 16000, .channels = 2, .bytes_per_sample = 2});
  Record(capture, 3);
  ASSERT_TRUE(WaitFor([&] { return !capture.recording(); }));
  EXPECT_EQ(ReadText(path_), HeaderOf(48000, 2, 16, 480, WavFormat_t::kPcm) + PayloadOf(1));
  EXPECT_EQ(Stop(capture), -1);
  ASSERT_EQ(Start(capture), 0) << "and can be started again";
  EXPECT_EQ(Stop(capture), 0);
  EXPECT_EQ(message_, "CaptureStop tapout0 buffer " + path_ + ", 0 samples");
  EXPECT_EQ(ReadText(path_), "");
}

TEST_F(WavCaptureTest, ASlowFileCostsPacketsOfTheFileOnly) {
  std::atomic<bool> blocked = true;
  WavCapture capture("tapout0", [&](const std::string& path) {
    return std::make_unique<BlockedFile>(blocked, OpenCaptureFile(path));
  });
  ASSERT_EQ(Start(capture), 0);
  std::string expected;
  for (uint32_t number = 1; number <= 3000; ++number) Record(capture, number);
  ASSERT_TRUE(WaitFor([] { return BlockedFile::entered.load(); }));
  blocked = false;
  blocked.notify_all();
  ASSERT_EQ(Stop(capture), 0);
  const std::string text = ReadText(path_);
  const auto kept = static_cast<uint32_t>((text.size() - 44) / kPayload);
  EXPECT_EQ(text.substr(0, 44), HeaderOf(48000, 2, 16, kept * 480, WavFormat_t::kPcm));
  for (uint32_t number = 1; number <= kept; ++number) expected += PayloadOf(number);
  EXPECT_TRUE(text.substr(44) == expected) << "what fits is in the file, whole and in order";
  EXPECT_EQ(log_.Count("W tapout0: " + std::to_string(3000 - kept) +
                       " packets are missing from the capture"),
            1u);
  EXPECT_GT(kept, 900u);
  EXPECT_LT(kept, 3000u);
}

TEST_F(WavCaptureTest, AFullDiskEndsIt) {
  FileScript file;
  file.results = {44, kPayload, 100, -1};
  WavCapture capture("tapout0",
                     [&](const std::string&) { return std::make_unique<RecordedFile>(file); });
  ASSERT_EQ(Start(capture), 0);
  for (uint32_t number = 1; number <= 3; ++number) Record(capture, number);
  ASSERT_TRUE(log_.WaitFor("E tapout0 writeCaptureWav: Error -1"));
  EXPECT_EQ(Stop(capture), -1) << "it was over before";
  EXPECT_EQ(message_, "CaptureStop tapout0 buffer: Capture not started");
  EXPECT_EQ(file.text.substr(0, 44), std::string(44, '\0'));
  EXPECT_TRUE(file.closed);
}

TEST_F(WavCaptureTest, ABufferThatGoesLeavesTheSamplesButNoHeader) {
  {
    WavCapture capture("tapout0");
    ASSERT_EQ(Start(capture), 0);
    Record(capture, 1);
  }
  EXPECT_EQ(ReadText(path_), std::string(44, '\0') + PayloadOf(1));
  EXPECT_EQ(log_.Count("W tapout0: capture into " + path_ + " has no end"), 1u);
}

TEST_F(WavCaptureTest, OnlyRegularFilesAreOpened) {
  WavCapture capture("tapout0");
  directory_.MakeFifo("fifo");
  const OwnedFd reader(open((directory_ / "fifo").c_str(), O_RDWR | O_NONBLOCK));
  std::ofstream(directory_ / "target") << "kept";
  std::filesystem::create_symlink(directory_ / "target", directory_ / "link");
  for (const std::string& path :
       {(directory_ / "fifo").string(), (directory_ / "link").string(), directory_.path().string(),
        (directory_ / "no/such").string(), std::string("/dev/null"), std::string()}) {
    EXPECT_EQ(capture.Start(path, message_), -1);
    EXPECT_EQ(message_, "CaptureStart tapout0 buffer " + path + " failed");
    EXPECT_FALSE(capture.recording());
  }
  EXPECT_EQ(ReadText(directory_ / "target"), "kept");
  EXPECT_EQ(log_.Count("cannot be opened: not a regular file"), 4u);
  EXPECT_EQ(capture.Start(std::string(300, 'n'), message_), -1);
  EXPECT_EQ(message_.size(), 255u + std::string(" failed").size());
}

TEST_F(WavCaptureTest, ProducersAndCommandsMayMeet) {
  // The sanitizers watch. Two producers at once are more than a buffer ever has.
  WavCapture capture("tapout0");
  std::atomic<bool> done = false;
  const auto produce = [&] {
    for (uint32_t number = 1; !done; ++number) Record(capture, number);
  };
  std::thread first(produce), second(produce);
  for (int i = 0; i < 20; ++i) {
    EXPECT_EQ(Start(capture), 0);
    if (i % 2 == 0) {
      EXPECT_TRUE(WaitFor([&] { return capture.samples() > 0; }));
    }
    EXPECT_EQ(Stop(capture), 0);
  }
  done = true;
  first.join();
  second.join();
}

}  // namespace
}  // namespace kvox
