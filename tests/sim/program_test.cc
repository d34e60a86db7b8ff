// Runs the real program in a private directory and plays the daemon.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <numeric>
#include <string>
#include <vector>

#include "tests/sim/program.h"
#include "tests/sim/wav_file.h"

namespace kvox::sim {
namespace {

using ::testing::HasSubstr;
using ::testing::StartsWith;

constexpr char kEchoScenario[] = R"(
cores = [2]
tapouts = [20]
injects = [20]
[[tap]]
name = "imic"
core = 2
source = { kind = "wav", file = "source.wav", repeat = true }
sink = { kind = "wav", file = "recorded.wav" }
)";

TEST_F(ProgramTest, AudioThatIsEchoedComesBackExact) {
  std::vector<int16_t> ramp(48000);
  std::iota(ramp.begin(), ramp.end(), int16_t{1});
  WriteWav(directory_ / "source.wav", SF_FORMAT_PCM_16, 1, ramp);
  std::ofstream(directory_ / "s.toml") << kEchoScenario;
  const auto stats_file = directory_ / "stats.json";
  const auto sim =
      Start({"--scenario", directory_ / "s.toml", "--print", "--stats", stats_file, "--speed", "3"},
            "tapout20");
  constexpr uint32_t kPackets = 20;
  {
    Fd control(Device("xdv-kvox_control"), O_RDWR);
    Fd inject(Device("xdv-kvox_inject20"), O_WRONLY);
    Fd tapout(Device("xdv-kvox_tapout20"), O_RDONLY);
    EXPECT_EQ(Bind(control, 20, 20), 0);
    EXPECT_EQ(Bind(control, 3, 20), -19);
    EXPECT_EQ(Enable(control, 1), 0);
    for (uint32_t number = 1; number <= kPackets; ++number) {
      auto packet = tapout.Read(kPacketHeaderSize + 960);
      ASSERT_EQ(HeaderOf(packet).packet_num, number);
      if (number == kPackets) packet[100] ^= std::byte{1};
      inject.Write(packet.data(), packet.size());
    }
    inject.Write("junk", 4);
    EXPECT_EQ(Enable(control, 0), 0);
  }
  sim->Signal(SIGUSR1);
  EXPECT_TRUE(WaitFor([&] { return sim->Out().find(" exact") != std::string::npos; }));
  sim->Signal(SIGTERM);
  EXPECT_EQ(sim->Wait(), 0) << sim->Err();
  EXPECT_TRUE(NoDevices());
  EXPECT_THAT(sim->Out(), HasSubstr("imic.0 (core 2): stream into tap-out 20 begins"));

  const auto stats = nlohmann::json::parse(ReadText(stats_file));
  const auto& tap = stats["taps"][0];
  EXPECT_GE(tap["sent"], kPackets);
  EXPECT_EQ(tap["received"], kPackets);
  EXPECT_EQ(tap["exact"], kPackets - 1);
  EXPECT_EQ(tap["different"], 1);
  EXPECT_EQ(tap["unknown"], 0);
  EXPECT_EQ(stats["injects"][0]["junk_bytes"], 4);
  EXPECT_EQ(stats["control"]["commands"].size(), 3u);

  const std::string source = directory_ / "source.wav";
  const std::string recorded = directory_ / "recorded.wav";
  EXPECT_EQ(Run({"compare", source, recorded}), 1);
  EXPECT_THAT(out_, StartsWith("no: 9138 frames agree, then frame 9138 of "));
  auto mended = ReadWav<int16_t>(recorded);
  ASSERT_EQ(mended.size(), kPackets * 480);
  std::iota(mended.begin(), mended.end(), int16_t{1});
  mended.insert(mended.begin(), 777, int16_t{0});
  WriteWav(recorded, SF_FORMAT_PCM_16, 1, mended);
  EXPECT_EQ(Run({"compare", source, recorded}), 1);
  EXPECT_EQ(Run({"compare", "--skip-silence", source, recorded}), 0);
  EXPECT_THAT(out_, StartsWith("yes: 9600 of 48000 frames of "));
  EXPECT_EQ(Run({"compare", source, directory_ / "none.wav"}), 2);
  const std::string piped =
      "cat " + source + " | " KVOSIM_PROGRAM " compare /dev/stdin " + source + " >/dev/null";
  EXPECT_EQ(std::system(piped.c_str()), 0);
}

TEST_F(ProgramTest, LeftOversAreReplacedButNothingElse) {
  auto dead = Start({});
  dead->Signal(SIGKILL);
  EXPECT_EQ(dead->Wait(), -SIGKILL);
  EXPECT_FALSE(NoDevices());
  std::ofstream(directory_ / "s.toml") << "cores = [2]\ntapouts = [9]\ninjects = [40]\n"
                                          "[[tap]]\nname = \"imic\"\ncore = 2\n";
  const auto live = Start({"--scenario", directory_ / "s.toml"}, "tapout9");
  EXPECT_FALSE(std::filesystem::exists(Device("xdv-kvox_tapout20"))) << "of the dead one";
  EXPECT_EQ(Run({}), 1);
  EXPECT_THAT(err_, HasSubstr("another kvosim runs there"));
  EXPECT_TRUE(std::filesystem::exists(Device("xdv-kvox_tapout9")));
  live->Signal(SIGTERM);
  EXPECT_EQ(live->Wait(), 0);
  EXPECT_TRUE(NoDevices());

  std::ofstream(Device("xdv-kvox_tapout20")) << "mine";
  EXPECT_EQ(Run({}), 1);
  EXPECT_THAT(err_, StartsWith("kvosim: " + Device("xdv-kvox_tapout20").string() + ": stands in"));
  EXPECT_EQ(ReadText(Device("xdv-kvox_tapout20")), "mine");
  EXPECT_FALSE(std::filesystem::exists(Device("kvo")));
}

TEST_F(ProgramTest, WhatIsWrongIsNamedAndNothingIsCreated) {
  std::ofstream(directory_ / "s.toml") << kEchoScenario;  // its source is not there
  const struct {
    std::vector<std::string> arguments;
    const char* message;
  } rows[] = {
      {{"--sped", "2"}, "--sped"},
      {{"--speed", "0.00099"}, "--speed: found 0.00099; expected a number from 0.001 to 1000000"},
      {{"--seconds", "0"}, "--seconds: found 0; expected a number above 0, 1000000 at most"},
      {{"--scenario", "/nowhere.toml"}, "/nowhere.toml: cannot be read"},
      {{"--scenario", directory_ / "s.toml"}, "s.toml:8: tap[0].source.file: "},
      {{"--stats", "/nowhere/stats.json"}, "--stats: /nowhere/stats.json: cannot be written"},
      {{"--write-default", "/nowhere/s.toml"}, "--write-default: /nowhere/s.toml cannot be"},
      {{"compare", "a.wav"}, "RECORDED"},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(Run(row.arguments), 2) << row.message;
    EXPECT_THAT(err_, HasSubstr(row.message));
    EXPECT_TRUE(NoDevices());
  }
  setenv("KVOX_DEV_DIR", "/nowhere", 1);
  EXPECT_EQ(Run({}), 1);
  EXPECT_THAT(err_, HasSubstr("set KVOX_DEV_DIR"));
}

TEST_F(ProgramTest, TheDefaultCanBeWrittenAndRead) {
  const std::string file = directory_ / "phone.toml";
  EXPECT_EQ(Run({"--write-default", file}), 0);
  EXPECT_EQ(Run({"--write-default", "-"}), 0);
  EXPECT_EQ(out_, ReadText(file));
  EXPECT_EQ(Run({"--scenario", file, "--seconds", "0.01", "--print"}), 0);
  EXPECT_THAT(out_, HasSubstr("vpul.1"));
}

}  // namespace
}  // namespace kvox::sim
