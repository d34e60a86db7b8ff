// Commands to a running simulator, and faults of its nodes.
#include <sys/stat.h>

#include "tests/sim/program.h"

namespace kvox::sim {
namespace {

using ::testing::HasSubstr;

class CtlTest : public ProgramTest {
 protected:
  std::unique_ptr<Process> StartSmall() {
    std::ofstream(directory_ / "s.toml") << kNoiseScenario;
    return Start({"--scenario", directory_ / "s.toml", "--print"}, "tapout0");
  }
  bool NodeIsThere(const std::string& name) const { return std::filesystem::exists(Device(name)); }
};

TEST_F(CtlTest, AnswersAndEnds) {
  EXPECT_EQ(Run({"ctl", "status"}), 3);
  EXPECT_THAT(err_, HasSubstr("no simulator answers (No such file"));
  const auto sim = StartSmall();
  struct stat socket {};
  ASSERT_EQ(stat(Device(".kvosim.ctl").c_str(), &socket), 0);
  EXPECT_EQ(socket.st_mode, S_IFSOCK | 0600u);
  EXPECT_EQ(Status()["taps"][0]["tap"], "imic.0");
  const struct {
    std::vector<std::string> words;
    const char* reason;
  } refused[] = {
      {{"ctl", "stat"}, "found \"stat\"; expected one of status, fault"},
      {{"ctl", "clear", "all"}, "clear: found all; expected no more words"},
      {{"ctl", "fault", "flap", "device=tapout1"}, "device: found 'tapout1'; expected one of kvo"},
      {{"ctl", "fault", "flap", "device=kvo", "device=kvo"},
       "device: found device=kvo; expected each key"},
      {{"ctl", "fault", "rest art"}, "found \"rest art\"; expected words without blanks"},
  };
  for (const auto& row : refused) {
    EXPECT_EQ(Run(row.words), 1) << row.reason;
    EXPECT_THAT(err_, HasSubstr(row.reason));
    EXPECT_EQ(out_, "");
  }
  EXPECT_EQ(Run({"ctl", "end"}), 0);
  EXPECT_EQ(sim->Wait(), 0);
  EXPECT_TRUE(NoDevices());
}

TEST_F(CtlTest, RestartTakesEveryNodeAndTheMemory) {
  const auto sim = StartSmall();
  Fd control(Device("xdv-kvox_control"), O_RDWR);
  EXPECT_EQ(Bind(control, 0, 0), 0);
  EXPECT_EQ(Enable(control, 1), 0);
  Fd tapout(Device("xdv-kvox_tapout0"), O_RDONLY);
  EXPECT_EQ(HeaderOf(tapout.Read(kPacketHeaderSize + 960)).packet_num, 1u);
  Ctl("fault restart gap=0.05 order=reverse missing=inject0");
  ASSERT_TRUE(WaitFor([&] { return CountOf("comes", sim->Out()) == 3; }));
  EXPECT_FALSE(NodeIsThere("xdv-kvox_inject0"));
  pollfd hung_up{.fd = control.get(), .events = POLLIN, .revents = 0};
  EXPECT_EQ(poll(&hung_up, 1, 1000), 1);
  EXPECT_NE(hung_up.revents & POLLHUP, 0);
  EXPECT_EQ(Fault("restart")["active"], true) << "a node stays away";
  Ctl("restore");
  EXPECT_TRUE(NodeIsThere("xdv-kvox_inject0"));
  EXPECT_EQ(Fault("restart")["active"], false);
  EXPECT_EQ(Fault("restart")["injected"], 1);
  const auto tap = Status()["taps"][0];
  EXPECT_EQ(tap["enabled"], false);
  EXPECT_EQ(tap["tapout"], nullptr);
  EXPECT_EQ(tap["streams"], 1);

  Fd again(Device("xdv-kvox_control"), O_RDWR);
  EXPECT_EQ(Bind(again, 0, 0), 0);
  EXPECT_EQ(Enable(again, 1), 0);
  Fd stream(Device("xdv-kvox_tapout0"), O_RDONLY);
  EXPECT_EQ(HeaderOf(stream.Read(kPacketHeaderSize + 960)).packet_num, 1u);
}

TEST_F(CtlTest, NodesFlapOneByOneAndFaultsAddUp) {
  const auto sim = StartSmall();
  for (const char* device : {"kvo", "control", "inject0", "tapout0"}) {
    Ctl(std::string("fault flap times=3 gap=0.01 device=") + device);
    EXPECT_TRUE(WaitFor([&] { return CountOf(std::string(device) + " comes", sim->Out()) == 3; }))
        << device;
  }
  for (const char* more : {"tapout0", "tapout0 for=0.05", "kvo at=1000"}) {
    Ctl(std::string("fault node-gone device=") + more);
  }
  EXPECT_TRUE(WaitFor([&] { return Fault("node-gone")["injected"] == 2; }));
  EXPECT_TRUE(Fault("node-gone")["active"]);
  EXPECT_EQ(Fault("node-gone")["waiting"], 1);
  EXPECT_FALSE(NodeIsThere("xdv-kvox_tapout0"));
  Ctl("clear");
  EXPECT_TRUE(NodeIsThere("xdv-kvox_tapout0"));
  EXPECT_EQ(Fault("node-gone")["waiting"], 0);
  sim->Signal(SIGTERM);
  EXPECT_EQ(sim->Wait(), 0) << sim->Err();
  EXPECT_EQ(sim->Err(), "");
  EXPECT_TRUE(NoDevices());
}

}  // namespace
}  // namespace kvox::sim
