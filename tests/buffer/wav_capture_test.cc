#include "buffer/wav_capture.h"

#include <signal.h>
#include <sys/resource.h>

#include <thread>

#include "tests/buffer/buffer_fixture.h"
#include "tests/buffer/recorded_file.h"
#include "tests/support/process.h"

namespace kvox {
namespace {

constexpr KvoxTapFormat kFormat = {.sample_rate = 48000, .channels = 2, .bytes_per_sample = 2};
constexpr uint32_t kPayload = 1920;

class WavCaptureTest : public ::testing::Test {
 protected:
  /// Also after a failure: threads_ waits for the writers.
  void TearDown() override {
    file_.blocked = false;
    file_.blocked.notify_all();
    for (const auto& capture : {owner_, scripted_owner_, second_owner_}) {
      if (capture) capture->Abandon();
    }
  }

  static void Record(WavCapture& capture, uint32_t number, const KvoxTapFormat& format = kFormat) {
    const Bytes packet = MakePacket(number, kPayload, format);
    capture.Record(HeaderOf(packet), AudioOf(packet));
  }
  /// The file of `count` packets, from number 1 on.
  static std::string FileOf(uint32_t count) {
    std::string text = HeaderOf(48000, 2, 16, count * 480, WavFormat_t::kPcm);
    for (uint32_t number = 1; number <= count; ++number) {
      const Bytes packet = MakePacket(number, kPayload);
      text.append(reinterpret_cast<const char*>(packet.data()) + kPacketHeaderSize, kPayload);
    }
    return text;
  }
  int32_t Start(WavCapture& capture) { return capture.Start(path_, message_); }
  int32_t Stop(WavCapture& capture) { return capture.Stop(message_); }

  LogCapture log_;
  TempDirectory directory_;
  const std::string path_ = directory_ / "a.wav";
  std::string message_;
  FileScript file_;
  ThreadGroup threads_{4};
  const std::shared_ptr<WavCapture> owner_ = std::make_shared<WavCapture>("tapout0", threads_);
  WavCapture& capture_ = *owner_;
  /// Writes into file_ instead of the path.
  std::shared_ptr<WavCapture> scripted_owner_ = std::make_shared<WavCapture>(
      "tapout0", threads_,
      [this](const std::string&, std::string&) { return std::make_unique<RecordedFile>(file_); });
  WavCapture& scripted_ = *scripted_owner_;
  std::shared_ptr<WavCapture> second_owner_;
};

TEST_F(WavCaptureTest, TheFileHoldsWhatPassedBetweenStartAndStop) {
  constexpr uint32_t kPackets = 2000;  // more than the ring holds
  EXPECT_EQ(Stop(capture_), -1);
  EXPECT_EQ(message_, "CaptureStop tapout0 buffer: Capture not started");
  std::ofstream(path_) << std::string(kPackets * kPayload * 2, 'x');
  for (int pass = 0; pass < 2; ++pass) {
    Record(capture_, 1);
    ASSERT_EQ(Start(capture_), 0);
    EXPECT_EQ(message_, "CaptureStart tapout0 buffer " + path_);
    EXPECT_EQ(Start(capture_), -1);
    EXPECT_EQ(message_, "CaptureStart tapout0 buffer " + path_ + ": Error, already enabled");
    for (uint32_t number = 1; number <= kPackets; ++number) {
      Record(capture_, number);
      EXPECT_EQ(capture_.samples(), 480 * number);
      if (number % 500 != 0) continue;
      ASSERT_TRUE(WaitFor([&] { return ReadText(path_).size() == 44 + kPayload * number; }));
    }
    ASSERT_EQ(Stop(capture_), 0);
    EXPECT_EQ(message_, "CaptureStop tapout0 buffer " + path_ + ", 960000 samples");
    Record(capture_, 9);
    EXPECT_TRUE(ReadText(path_) == FileOf(kPackets));
  }
  EXPECT_EQ(log_.Count("W "), 0u);
}

TEST_F(WavCaptureTest, EndsByItselfAndCanBeStartedAgain) {
  ASSERT_EQ(Start(capture_), 0);
  Record(capture_, 1);
  Record(capture_, 2, {.sample_rate = 16000, .channels = 2, .bytes_per_sample = 2});
  Record(capture_, 3);
  ASSERT_TRUE(WaitFor([&] { return !capture_.recording(); }));
  EXPECT_EQ(ReadText(path_), FileOf(1));
  ASSERT_EQ(Start(capture_), 0);
  EXPECT_EQ(Stop(capture_), 0);
  EXPECT_EQ(ReadText(path_), "") << "no packet was taken";
  ASSERT_EQ(Start(capture_), 0);
  Record(capture_, 1);
  EXPECT_EQ(capture_.samples(), 480u) << "the format that ended an earlier one does not count";
  EXPECT_TRUE(WaitFor([&] { return ReadText(path_) == FileOf(1); })) << "whole at any time";
  EXPECT_EQ(Stop(capture_), 0);
}

TEST_F(WavCaptureTest, ASlowFileCostsPacketsOfTheFileOnly) {
  constexpr uint32_t kPackets = 3000;
  file_.blocked = true;
  ASSERT_EQ(Start(scripted_), 0);
  Record(scripted_, 1);
  ASSERT_TRUE(WaitFor([&] { return file_.entered.load(); }));
  for (uint32_t number = 2; number <= kPackets; ++number) Record(scripted_, number);
  file_.blocked = false;
  file_.blocked.notify_all();
  ASSERT_EQ(Stop(scripted_), 0);
  const auto kept = static_cast<uint32_t>((file_.text.size() - 44) / kPayload);
  EXPECT_GT(kept, 1000u);
  EXPECT_TRUE(file_.text == FileOf(kept)) << "what fits is there, whole and in order";
  EXPECT_EQ(log_.Count("W tapout0: " + std::to_string(kPackets - kept) + " packets are missing"),
            1u);
  log_.Take();
  ASSERT_EQ(Start(scripted_), 0);
  Record(scripted_, 1);
  ASSERT_EQ(Stop(scripted_), 0);
  EXPECT_EQ(log_.Count("packets are missing"), 0u) << "those of the capture before do not count";
}

TEST_F(WavCaptureTest, ARingThatFillsQuicklyIsWrittenAtOnce) {
  constexpr uint32_t kMoreThanHalf = 700;  // of what the ring holds
  constexpr auto kSoonerThanItLooks = std::chrono::milliseconds(25);
  std::atomic<ssize_t> written = 0;
  file_.decide = [&](ssize_t asked) { return written += asked, asked; };
  ASSERT_EQ(Start(scripted_), 0);
  auto shortest = std::chrono::steady_clock::duration::max();
  const Bytes packet = MakePacket(1, kPayload, kFormat);
  for (ssize_t round = 1; round <= 10; ++round) {
    file_.entered = false;
    const auto begin = std::chrono::steady_clock::now();
    for (uint32_t i = 0; i < kMoreThanHalf; ++i) {
      scripted_.Record(HeaderOf(packet), AudioOf(packet));
    }
    ASSERT_TRUE(WaitFor([&] { return file_.entered.load(); }));
    shortest = std::min(shortest, std::chrono::steady_clock::now() - begin);
    ASSERT_TRUE(WaitFor([&] { return written == 44 + round * kMoreThanHalf * kPayload; }));
  }
  EXPECT_LT(shortest, kSoonerThanItLooks);
  EXPECT_EQ(Stop(scripted_), 0);
}

TEST_F(WavCaptureTest, AFileThatHangsIsNotWaitedForForEver) {
  const auto hasty = std::make_shared<WavCapture>(
      "tapout0", threads_,
      [this](const std::string&, std::string&) { return std::make_unique<RecordedFile>(file_); },
      std::chrono::milliseconds(20));
  file_.blocked = true;
  ASSERT_EQ(Start(*hasty), 0);
  Record(*hasty, 1);
  ASSERT_TRUE(WaitFor([&] { return file_.entered.load(); }));
  EXPECT_EQ(Stop(*hasty), -1);
  EXPECT_EQ(message_,
            "CaptureStop tapout0 buffer " + path_ + ": Error, the file is still being written");
  EXPECT_EQ(Start(*hasty), -1);
  EXPECT_EQ(message_, "CaptureStart tapout0 buffer " + path_ +
                          ": Error, the last file is still being written");
  file_.blocked = false;
  file_.blocked.notify_all();
  ASSERT_TRUE(WaitFor([&] { return Stop(*hasty) == 0; }));
  EXPECT_EQ(message_, "CaptureStop tapout0 buffer " + path_ + ", 480 samples");
  EXPECT_EQ(file_.text, FileOf(1));
}

TEST_F(WavCaptureTest, ABufferThatGoesWaitsForNoDiskAndLeavesAWholeFile) {
  file_.blocked = true;
  ASSERT_EQ(Start(scripted_), 0);
  Record(scripted_, 1);
  ASSERT_TRUE(WaitFor([&] { return file_.entered.load(); }));
  for (const uint32_t number : {2u, 3u}) Record(scripted_, number);
  EXPECT_EQ(scripted_.samples(), 3 * 480u) << "counted when recorded, not when written";
  scripted_.Abandon();
  scripted_owner_.reset();
  EXPECT_EQ(threads_.running(), 1u) << "the disk still holds the thread";
  file_.blocked = false;
  file_.blocked.notify_all();
  ASSERT_TRUE(WaitFor([&] { return threads_.running() == 0; }));
  EXPECT_TRUE(file_.closed);
  EXPECT_EQ(file_.text, FileOf(3));
}

TEST_F(WavCaptureTest, WithoutAThreadTheFileStaysAsItIs) {
  std::ofstream(path_) << "kept";
  ThreadGroup none(0);
  const auto capture = std::make_shared<WavCapture>("tapout0", none);
  EXPECT_EQ(Start(*capture), -1);
  EXPECT_EQ(message_, "CaptureStart tapout0 buffer " + path_ + " failed");
  EXPECT_EQ(log_.Count("E tapout0: no thread to write the capture into " + path_), 1u);
  EXPECT_EQ(Stop(*capture), -1);
  EXPECT_EQ(ReadText(path_), "kept");
}

TEST_F(WavCaptureTest, AFileHasOneCaptureOneNameAndOurOwner) {
  const auto second = second_owner_ = std::make_shared<WavCapture>("inject0", threads_);
  ASSERT_EQ(Start(capture_), 0);
  Record(capture_, 1);
  EXPECT_EQ(Start(*second), -1);
  EXPECT_EQ(message_, "CaptureStart inject0 buffer " + path_ + " failed");
  EXPECT_EQ(second->state().trouble, "another capture writes it");
  EXPECT_EQ(Stop(capture_), 0);
  EXPECT_EQ(ReadText(path_), FileOf(1));
  std::filesystem::create_hard_link(path_, directory_ / "second.wav");
  EXPECT_EQ(Start(*second), -1);
  std::filesystem::remove(directory_ / "second.wav");
  if (chown(path_.c_str(), 65534, 65534) == 0) {
    EXPECT_EQ(Start(*second), -1);
  }
  EXPECT_EQ(ReadText(path_), FileOf(1)) << "untouched";
}

TEST_F(WavCaptureTest, AFullDiskLeavesAPlayableFile) {
  rlimit before{};
  ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &before), 0);
  signal(SIGXFSZ, SIG_IGN);
  rlimit full = before;
  full.rlim_cur = 44 + kPayload + 100;
  ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &full), 0);
  ASSERT_EQ(Start(capture_), 0);
  Record(capture_, 1);
  Record(capture_, 2);
  EXPECT_TRUE(WaitFor([&] { return !capture_.recording(); }));
  ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &before), 0);
  EXPECT_EQ(Stop(capture_), -1);
  EXPECT_EQ(message_, "CaptureStop tapout0 buffer: Capture not started");
  EXPECT_EQ(ReadText(path_), HeaderOf(48000, 2, 16, 480 + 25, WavFormat_t::kPcm) +
                                 FileOf(2).substr(44, kPayload + 100));
}

TEST_F(WavCaptureTest, OnlyRegularFilesAreOpened) {
  directory_.MakeFifo("fifo");
  const UniqueFd reader(open((directory_ / "fifo").c_str(), O_RDWR | O_NONBLOCK));
  std::ofstream(directory_ / "target") << "kept";
  std::filesystem::create_symlink(directory_ / "target", directory_ / "link");
  for (const std::string path : {"fifo", "link", "", "no/such", "/dev/null", "/proc/self/comm"}) {
    const std::string file = directory_.path() / path;
    EXPECT_EQ(capture_.Start(file, message_), -1);
    EXPECT_EQ(message_, "CaptureStart tapout0 buffer " + file + " failed");
    EXPECT_FALSE(capture_.recording());
  }
  EXPECT_EQ(ReadText(directory_ / "target"), "kept");
  EXPECT_EQ(log_.Count("cannot be opened: not a regular file"), 5u);
  EXPECT_EQ(capture_.Start(std::string(300, 'n'), message_), -1);
  EXPECT_EQ(message_.size(), 255u + std::string(" failed").size());
}

TEST_F(WavCaptureTest, EveryPacketIsInTheFileOrMissed) {
  constexpr uint32_t kEach = 5000;  // those of both fit into the ring
  constexpr uint32_t kFrames = 16;
  const Bytes packet = MakePacket(1, kFrames * 4, kFormat);
  for (int round = 0; round < 20; ++round) {  // in some of them the producers meet
    file_.text.clear();
    ASSERT_EQ(Start(scripted_), 0);
    std::atomic<int> ready = 0;
    const auto produce = [&] {
      ++ready;
      YieldUntil([&] { return ready == 2; });
      for (uint32_t i = 0; i < kEach; ++i) scripted_.Record(HeaderOf(packet), AudioOf(packet));
    };
    std::thread other(produce);
    produce();
    other.join();
    ASSERT_EQ(Stop(scripted_), 0);
    unsigned missing = 0;
    for (const std::string& line : log_.Take()) {
      sscanf(line.c_str(), "W tapout0: %u packets are missing", &missing);
    }
    EXPECT_EQ(scripted_.samples() / kFrames + missing, 2 * kEach);
    EXPECT_EQ(file_.text.size(), 44 + (2 * kEach - missing) * kFrames * 4);
  }
}

TEST_F(WavCaptureTest, ProducersAndCommandsMayMeet) {
  // The sanitizers watch. Two producers at once are more than a buffer ever has.
  std::atomic<bool> done = false;
  const auto produce = [&] {
    for (uint32_t number = 1; !done; ++number) Record(scripted_, number);
  };
  std::thread first(produce), second(produce);
  for (int i = 0; i < 20; ++i) {
    EXPECT_EQ(Start(scripted_), 0);
    EXPECT_TRUE(WaitFor([&] { return i % 2 == 0 || scripted_.samples() > 0; }));
    EXPECT_EQ(Stop(scripted_), 0);
  }
  done = true;
  first.join();
  second.join();
}

}  // namespace
}  // namespace kvox
