// Clients of relays: the real programs during a call.
#include <filesystem>

#include "tests/sim/wav_file.h"
#include "tests/system/system_fixture.h"

namespace kvox {
namespace {

using ::testing::HasSubstr;
using ::testing::Not;

/// Samples of a WAV file with one channel.
std::vector<int16_t> Samples(const std::string& path) {
  SF_INFO info{};
  const sim::SoundFile file(sf_open(path.c_str(), SFM_READ, &info));
  if (file == nullptr) return {};
  std::vector<int16_t> samples(static_cast<size_t>(info.frames * info.channels));
  sf_readf_short(file.get(), samples.data(), info.frames);
  return samples;
}

class RelayProgramTest : public SystemTest {
 protected:
  /// A call whose downlink is a ramp, so that each sample identifies itself; the uplink goes into a
  /// file.
  void StartCall() {
    WriteRamp("ramp.wav", 48000);
    std::ofstream(directory_ / "call.toml") << R"(
cores = [2, 4]
tapouts = [0, 40, 41]
injects = [0, 40, 41]
[[tap]]
name = "vpdl"
core = 4
channels = 2
noninterleaved = 480
source = { kind = "wav", file = "ramp.wav", repeat = true }
[[tap]]
name = "vpul"
index = 1
core = 4
noninterleaved = 480
sink = { kind = "wav", file = "uplink.wav" }
)";
    StartSimulator({"--scenario", directory_ / "call.toml"});
    StartDaemon();
    ASSERT_TRUE(
        WaitFor([&] { return Run(Words("call ListTapOutBuffers")).out.find("tapout41") != -1ul; }));
    Call("EnableUseCase AREL_TELE true");
  }

  void WriteRamp(const std::string& name, int frames) {
    std::vector<int16_t> ramp;
    for (int i = 0; i < frames; ++i) ramp.push_back(static_cast<int16_t>(1 + i % 30000));
    sim::WriteWav(directory_ / name, SF_FORMAT_PCM_16, 1, ramp);
  }

  std::unique_ptr<Process> Client(const std::string& line) {
    return std::make_unique<Process>(KVOXCTL_PROGRAM, Words(line), directory_ / "client");
  }

  /// A client of the call's downlink, once it gets blocks.
  std::unique_ptr<Process> Listener() {
    const auto raw = directory_ / "raw";
    auto client = Client("call RegisterReceiveAudioCallback art0 60 " + raw.string());
    EXPECT_TRUE(WaitFor([&] { return exists(raw) && std::filesystem::file_size(raw) > 0; }));
    return client;
  }

  bool CallIsOn() {
    return Run(Words("--json call IsUseCaseEnabled AREL_TELE")).out.find("\"value\": 1.0") != -1ul;
  }
  int64_t Injected() { return Figure("vpdl.0", "received"); }
};

TEST_F(RelayProgramTest, RecordAndPlayCarryACallAndLeaveItOn) {
  StartCall();
  const std::string recorded = (directory_ / "down.wav").string();
  const auto record = Client("record art0 " + recorded + " --seconds 1");
  EXPECT_THAT(record->Wait(), ::testing::AnyOf(0, 7)) << record->Err();
  EXPECT_THAT(record->Out(), HasSubstr("recorded 1.000 s in 10 blocks"));
  const auto samples = Samples(recorded);
  ASSERT_EQ(samples.size(), 48000u);
  int steps = 0;
  for (size_t i = 1; i < samples.size(); ++i) steps += samples[i] == samples[i - 1] + 1 ? 1 : 0;
  EXPECT_GE(steps, 47980) << "but for the seams of the ramp and of blocks";

  WriteRamp("speech.wav", 7000);
  const ClientRun play = Run({"play", "art1", directory_ / "speech.wav"});
  EXPECT_THAT(play.exit_status, ::testing::AnyOf(0, 7)) << play.err;
  EXPECT_THAT(play.out, HasSubstr("played 0.200 s in 2 blocks"));
  EXPECT_TRUE(WaitFor([&] {
    const auto up = Samples(directory_ / "uplink.wav");
    const auto sound = std::find(up.begin(), up.end(), 1);
    return up.end() - sound >= 7000 && sound[6999] == 7000;
  }));

  const std::string open_end = (directory_ / "open_end.wav").string();
  signal(SIGHUP, SIG_IGN);
  const auto interrupted = Client("record art0 " + open_end);
  signal(SIGHUP, SIG_DFL);
  ASSERT_TRUE(WaitFor([&] { return !Samples(open_end).empty(); })) << "valid while it grows";
  interrupted->Signal(SIGHUP);
  const size_t before = Samples(open_end).size();
  ASSERT_TRUE(WaitFor([&] { return Samples(open_end).size() > before + 9600; })) << "left alone";
  interrupted->Signal(SIGINT);
  EXPECT_THAT(interrupted->Wait(), ::testing::AnyOf(0, 7));
  EXPECT_TRUE(CallIsOn());
}

TEST_F(RelayProgramTest, TheCallOfAClientThatDiesWhileDevicesAreAwayDoesNotReturnWithThem) {
  StartCall();
  const auto client = Listener();
  const auto last = directory_ / "dev/xdv-kvox_tapout41";
  Fault("restart gap=2");
  ASSERT_TRUE(WaitFor([&] { return !exists(last); }));
  client->Signal(SIGKILL);
  ASSERT_TRUE(DaemonLogs("try to disable art0"));
  ASSERT_TRUE(WaitFor([&] { return !CallIsOn(); }));
  ASSERT_TRUE(WaitFor([&] { return exists(last); })) << "back";
  ASSERT_TRUE(DaemonLogs("Found 3 tap-out buffers", 2));
  EXPECT_THAT(Do("processor list"), HasSubstr("none"));
  EXPECT_THAT(Do("--short tap info 4:vpdl.0"), Not(HasSubstr("tapout40")));
  EXPECT_FALSE(CallIsOn());
}

TEST_F(RelayProgramTest, WhoTakesARelayOverKeepsIt) {
  StartCall();
  const std::string heard = (directory_ / "first.wav").string();
  const auto first = Client("record art0 " + heard);
  ASSERT_TRUE(WaitFor([&] { return !Samples(heard).empty(); }));
  EXPECT_EQ(Run(Words("record art0 /nowhere/x.wav")).exit_status, 2);
  EXPECT_EQ(first->Err(), "kvoxctl: recording from art0; Ctrl-C ends it\n");
  Process second(KVOXCTL_PROGRAM,
                 Words("record art0 --seconds 1 " + (directory_ / "second.wav").string()),
                 directory_ / "second");
  EXPECT_EQ(first->Wait(), 7);
  EXPECT_THAT(first->Err(), HasSubstr("art0 has dropped this client: another one took it over"));
  EXPECT_THAT(second.Wait(), ::testing::AnyOf(0, 7));
  EXPECT_THAT(second.Out(), HasSubstr("recorded 1.000 s in 10 blocks"));
  EXPECT_TRUE(CallIsOn());
}

TEST_F(RelayProgramTest, AClientThatDiesEndsTheCallAndLeavesNothingBehind) {
  StartCall();
  ASSERT_TRUE(CallIsOn());
  const auto client = Listener();
  client->Signal(SIGKILL);
  client->Wait();
  EXPECT_TRUE(WaitFor([&] { return !CallIsOn(); }));
  EXPECT_THAT(Call("ListProcessors"), HasSubstr("none"));
  const ResourceUsage before = DaemonResources();
  for (int i = 0; i < 3; ++i) {
    Call("EnableUseCase AREL_TELE true");
    EXPECT_EQ(Run(Words("call RegisterReceiveAudioCallback art0 0.3 /dev/null")).exit_status, 2);
    Run(Words("call RegisterReceiveAudioCallback art0 0.3 " + (directory_ / "raw").string()));
    EXPECT_TRUE(WaitFor([&] { return !CallIsOn(); }));
  }
  EXPECT_TRUE(WaitFor([&] { return DaemonResources().threads <= before.threads; }));
  EXPECT_TRUE(WaitFor([&] { return DaemonResources().descriptors <= before.descriptors; }))
      << "fewer when the connection of the last question had yet to go before";
}

TEST_F(RelayProgramTest, AClientThatStopsDelaysNeitherAudioNorCommands) {
  StartCall();
  const auto client = Listener();
  client->Freeze();
  EXPECT_TRUE(DaemonLogs("art0: the client was too slow"));
  const int64_t before = Injected();
  EXPECT_TRUE(WaitFor([&] { return Injected() > before + 3; })) << "audio goes on";
  EXPECT_THAT(Call("ListProcessors"), HasSubstr("art0"));
  Call("EnableUseCase AREL_TELE false");
  EXPECT_THAT(Call("ListProcessors"), HasSubstr("none"));
  client->Signal(SIGCONT);
}

TEST_F(RelayProgramTest, AStoppedDaemonKeepsNoRecorder) {
  StartCall();
  const auto heard = directory_ / "heard.wav";
  const auto recorder = Client("record art0 " + heard.string());
  ASSERT_TRUE(WaitFor([&] { return exists(heard) && std::filesystem::file_size(heard) > 44; }));
  daemon_->Freeze();
  recorder->Signal(SIGTERM);
  EXPECT_EQ(recorder->Wait(), 6);
  EXPECT_THAT(recorder->Err(), HasSubstr("was not answered within 2 s"));
  daemon_->Signal(SIGCONT);
}

TEST_F(RelayProgramTest, AStayingClientNoticesThatTheDaemonHasGone) {
  StartCall();
  const auto raw = Listener();
  Process record(KVOXCTL_PROGRAM,
                 Words("--timeout 2 record art1 " + (directory_ / "r.wav").string()),
                 directory_ / "record");
  ASSERT_TRUE(WaitFor([&] { return record.Err().find("recording from art1") != -1ul; }));
  daemon_->Signal(SIGTERM);
  daemon_->Wait();
  EXPECT_EQ(raw->Wait(), 3);
  EXPECT_EQ(record.Wait(), 3);
  EXPECT_THAT(record.Err(), HasSubstr("kvoxd has gone"));
}

}  // namespace
}  // namespace kvox
