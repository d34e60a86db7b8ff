#include <sys/mount.h>

#include "kvox/common/wav_header.h"
#include "tests/system/machine.h"

namespace kvox {
namespace {

constexpr int kRate = 48000;
constexpr unsigned long kSamples = kRate;
constexpr size_t kHeader = sizeof(WavHeader);

std::string HeaderOf(unsigned long samples) {
  WavHeader header;
  InitHeaderWAV(&header, kRate, 2, 16, samples, WavFormat_t::kPcm);
  return {reinterpret_cast<const char*>(&header), sizeof header};
}

/// A tap that plays a second of noise in runs of 480 samples, and passes through the daemon.
class CaptureTest : public MachineTest {
 protected:
  void SetUp() override {
    std::string audio(kSamples * 4, '\0');
    uint32_t noise = 1;
    for (char& byte : audio) byte = static_cast<char>((noise = noise * 1664525 + 1013904223) >> 24);
    played_ = HeaderOf(kSamples) + audio;
    std::ofstream(directory_ / "played.wav") << played_;
    std::ofstream(directory_ / "scenario.toml") << R"(
        cores = [2]
        tapouts = [0, 41]
        injects = [0]
        [[tap]]
        name = "genp"
        core = 2
        channels = 2
        block_length = 4800
        noninterleaved = 480
        source = { kind = "wav", file = "played.wav" })";
    StartSimulator({"--scenario", directory_ / "scenario.toml"});
    StartDaemon();
    SetUpChain();
  }

  void SetUpChain() {
    for (const char* line : {"TapEnable 2 genp 0 false", "NewProcessor pass", "Connect pass 0 0",
                             "ProcessorEnable pass true", "ConnectTap 2 genp 0 0 0"}) {
      Call(line);
    }
  }

  std::string FileOf(const std::string& buffer) { return directory_ / (buffer + ".wav"); }

  /// Plays the second and what follows, and captures it at both ends.
  void PlayAndCapture() {
    for (const char* buffer : {"tapout0", "inject0"}) {
      Call(std::string("Debug capture start ") + buffer + " " + FileOf(buffer));
    }
    const int64_t before = Figure("genp.0", "received");
    Call("StartIo 0");
    Call("TapEnable 2 genp 0 true");
    EXPECT_TRUE(WaitFor([&] { return Figure("genp.0", "received") >= before + 11; }));
    Call("TapEnable 2 genp 0 false");
    Call("Debug capture stop");
    Call("StopIo 0");
  }

  std::string played_;
};

TEST_F(CaptureTest, TheFileIsWhatWasPlayed) {
  // On a busy machine packets come at the wrong time and are dropped: then once more.
  for (int attempt = 1, resyncs = 0; attempt <= 3; ++attempt) {
    PlayAndCapture();
    const int drops = CountOf("tapout0 RX resync", daemon_->Err()) - resyncs - 1;
    resyncs += drops + 1;
    if (drops == 0) break;
  }
  for (const char* buffer : {"tapout0", "inject0"}) {
    const std::string captured = ReadText(FileOf(buffer));
    ASSERT_GT(captured.size(), played_.size());
    EXPECT_EQ(captured.substr(0, kHeader), HeaderOf((captured.size() - kHeader) / 4));
    EXPECT_TRUE(captured.substr(kHeader, played_.size() - kHeader) == played_.substr(kHeader));
    EXPECT_EQ(captured.find_first_not_of('\0', played_.size()), captured.npos) << "silence follows";
  }
}

TEST_F(CaptureTest, ADaemonThatIsKilledLeavesTheSamples) {
  for (int attempt = 1; attempt <= 3; ++attempt) {
    Call("Debug capture start tapout0 " + FileOf("tapout0"));
    Call("StartIo 0");
    const int64_t before = Figure("genp.0", "received");
    Call("TapEnable 2 genp 0 true");
    EXPECT_TRUE(WaitFor([&] { return Figure("genp.0", "received") >= before + 6; }));
    daemon_->Signal(SIGKILL);
    EXPECT_EQ(daemon_->Wait(), -SIGKILL);
    if (CountOf("tapout0 RX resync", daemon_->Err()) == 1) break;
    StartDaemon();  // packets came at the wrong time: once more
    SetUpChain();
  }
  const std::string captured = ReadText(FileOf("tapout0"));
  constexpr size_t kPacket = 4800 * 4;
  ASSERT_GE(captured.size(), kHeader + 5 * kPacket) << "what is older than a packet is in the file";
  EXPECT_EQ(captured.substr(0, kHeader), std::string(kHeader, '\0'));
  const size_t size = std::min(captured.size(), played_.size()) - kHeader;
  EXPECT_TRUE(captured.substr(kHeader, size) == played_.substr(kHeader, size));
}

TEST_F(CaptureTest, AFullFileSystemEndsACaptureAndNothingElse) {
  const auto full = directory_ / "full";
  std::filesystem::create_directory(full);
  if (mount("tmpfs", full.c_str(), "tmpfs", 0, "size=64k") != 0) {
    GTEST_SKIP() << "needs the right to mount a file system";
  }
  const std::string file = full / "tapout0.wav";
  Call("Debug capture start tapout0 " + file);
  Call("Debug capture start inject0 " + FileOf("inject0"));
  Call("StartIo 0");
  Call("TapEnable 2 genp 0 true");
  EXPECT_TRUE(DaemonLogs("Capture file " + file + ": No space left on device"));
  EXPECT_TRUE(DaemonLogs("tapout0 writeCaptureWav: Error -1"));
  const int64_t before = Figure("genp.0", "received");
  EXPECT_TRUE(WaitFor([&] { return Figure("genp.0", "received") >= before + 5; }));
  EXPECT_EQ(Figure("genp.0", "different"), 0);

  const ClientRun stop = Run(Words("call Debug capture stop tapout0"));
  EXPECT_EQ(stop.exit_status, 1);
  EXPECT_EQ(CountOf("CaptureStop tapout0 buffer: Capture not started", stop.out + stop.err), 1);
  const std::string captured = ReadText(file);
  EXPECT_EQ(captured.size(), 64u << 10);
  EXPECT_EQ(captured.substr(0, kHeader), std::string(kHeader, '\0'));

  std::filesystem::remove(file);  // there is room again
  Call("TapEnable 2 genp 0 false");
  Call("Debug capture start tapout0 " + file);
  EXPECT_EQ(CountOf("samples", Call("Debug capture stop")), 2) << "that of inject0 went on";
  Call("StopIo 0");
  EXPECT_EQ(umount2(full.c_str(), MNT_DETACH), 0);
}

}  // namespace
}  // namespace kvox
