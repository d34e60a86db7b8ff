// Compares the service's files with each other and with the daemon's code.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <stdlib.h>

#include <filesystem>
#include <map>
#include <regex>
#include <string>
#include <vector>

#include "kvox/common/device_names.h"
#include "platform/linux/runtime_directory.h"
#include "tests/support/process.h"

namespace kvox {
namespace {

using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::StartsWith;

std::string Read(const std::string& file) {
  std::string text = ReadText(std::filesystem::path(KVOX_PACKAGING_DIR) / file);
  EXPECT_FALSE(text.empty()) << file;
  return text;
}

/// The lines of a file that are neither empty nor comments.
std::vector<std::string> Lines(const std::string& file) {
  std::vector<std::string> lines;
  std::istringstream text(Read(file));
  for (std::string line; std::getline(text, line);) {
    if (!line.empty() && line[0] != '#') lines.push_back(line);
  }
  return lines;
}

/// What the unit sets, the last value of each.
std::map<std::string, std::string> Unit() {
  std::map<std::string, std::string> values;
  for (const std::string& line : Lines("systemd/kvoxd.service.in")) {
    const size_t equals = line.find('=');
    if (equals != line.npos) values[line.substr(0, equals)] = line.substr(equals + 1);
  }
  return values;
}

TEST(ServiceFiles, AgreeOnUserAndGroup) {
  auto unit = Unit();
  EXPECT_EQ(unit["User"], unit["Group"]);
  EXPECT_THAT(Lines("systemd/kvoxd.sysusers"), ElementsAre(HasSubstr("u " + unit["User"] + " - ")));
  EXPECT_THAT(Lines("systemd/kvoxd.tmpfiles"), Each(EndsWith(" root " + unit["Group"])));
}

TEST(ServiceFiles, GiveEachDeviceToTheDaemonAlone) {
  const std::string user = Unit()["User"];
  std::map<std::string, std::string> modes;
  const std::regex rule(R"re(KERNEL=="([^"]+)", +OWNER="(\w+)", GROUP="root", MODE="0(\d)00")re");
  for (const std::string& line : Lines("udev/60-kvoxd.rules")) {
    std::smatch parts;
    ASSERT_TRUE(std::regex_match(line, parts, rule)) << line;
    EXPECT_EQ(parts[2], user);
    modes[parts[1]] = parts[3];
  }
  EXPECT_EQ(modes, (std::map<std::string, std::string>{
                       {kMarkerDevice, "4"},
                       {kControlDevice, "6"},
                       {kTapOutPrefix + std::string("*"), "4"},
                       {kInjectPrefix + std::string("*"), "2"},
                   }));
}

TEST(ServiceFiles, PutTheSocketWhereClientsLook) {
  unsetenv("KVOX_RUNTIME_DIR");
  unsetenv("XDG_RUNTIME_DIR");
  auto unit = Unit();
  EXPECT_THAT(binder::LookupDirectories(), ElementsAre("/run/" + unit["RuntimeDirectory"]));
  EXPECT_EQ(unit["Environment"], "KVOX_RUNTIME_DIR=%t/" + unit["RuntimeDirectory"]);
  EXPECT_EQ(unit["RuntimeDirectoryMode"], "0750");
  EXPECT_EQ(unit["RuntimeDirectoryPreserve"], "yes") << "the flight log outlives a crash";
}

TEST(ServiceFiles, LetTheDaemonDoWhatItDoes) {
  auto unit = Unit();
  EXPECT_EQ(unit["LimitRTPRIO"], std::to_string(sched_get_priority_max(SCHED_FIFO)));
  EXPECT_THAT(unit["AmbientCapabilities"], HasSubstr("CAP_BLOCK_SUSPEND"));
  for (const std::string file : {"/sys/power/wake_lock", "/sys/power/wake_unlock"}) {
    EXPECT_THAT(unit["ReadWritePaths"], HasSubstr(file));
    EXPECT_THAT(Read("systemd/kvoxd.tmpfiles"), HasSubstr("z " + file + " "));
  }
}

TEST(Packages, HaveTheVersionOfTheBuild) {
  EXPECT_THAT(Read("debian/changelog"), StartsWith("kvoxd (" KVOX_VERSION ")"));
}

}  // namespace
}  // namespace kvox
