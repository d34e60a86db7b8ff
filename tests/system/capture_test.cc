#include "tests/buffer/recorded_file.h"
#include "tests/system/system_fixture.h"

namespace kvox {
namespace {

constexpr int kRate = 48000;
constexpr unsigned long kSamples = kRate;
constexpr size_t kHeader = sizeof(WavHeader);

std::string HeaderOf(unsigned long samples) {
  return kvox::HeaderOf(kRate, 2, 16, samples, WavFormat_t::kPcm);
}

/// A tap that plays a second of noise in runs of 480 samples, and passes through the daemon.
class CaptureTest : public SystemTest {
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

  /// Plays the second and all following packets, and captures them at both ends.
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
  // On a busy machine packets come at the wrong time and are dropped: then repeat.
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
    StartDaemon();  // packets came at the wrong time: repeat
    SetUpChain();
  }
  const std::string captured = ReadText(FileOf("tapout0"));
  constexpr size_t kPacket = 4800 * 4;
  ASSERT_GE(captured.size(), kHeader + 5 * kPacket) << "what is older than a packet is in the file";
  EXPECT_EQ(captured.substr(0, kHeader), HeaderOf((captured.size() - kHeader) / 4));
  const size_t size = std::min(captured.size(), played_.size()) - kHeader;
  EXPECT_TRUE(captured.substr(kHeader, size) == played_.substr(kHeader, size));
}

}  // namespace
}  // namespace kvox
