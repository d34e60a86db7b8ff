// The files of a phone's build, compared with the code and the host's build.
#include <aidl/kvox/IKvox.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "interface/service_name.h"
#include "kvox/common/device_names.h"

namespace kvox {
namespace {

namespace fs = std::filesystem;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::UnorderedElementsAreArray;
using Words = std::vector<std::string>;

const fs::path kRoot = KVOX_SOURCE_DIR;

/// A file of the tree without comments.
std::string Read(const std::string& path) {
  std::ifstream file(kRoot / path);
  EXPECT_TRUE(file.is_open()) << path;
  std::stringstream text;
  text << file.rdbuf();
  return std::regex_replace(text.str(), std::regex(R"((^|\n)\s*(#|//)[^\n]*)"), "\n");
}

/// All matches of the pattern's group in the text.
Words FindAll(const std::string& text, const std::string& pattern) {
  const std::regex regex(pattern);
  Words found;
  for (std::sregex_iterator at(text.begin(), text.end(), regex), end; at != end; ++at) {
    found.push_back((*at)[1]);
  }
  return found;
}

/// The sources that CMake builds in a folder.
Words ListedByCMake(const std::string& folder) {
  Words sources = FindAll(Read(folder + "/CMakeLists.txt"), R"(([\w/]+\.cc)\b)");
  for (std::string& source : sources) source.insert(0, folder + "/");
  return sources;
}

/// A pattern of Android.bp, as Soong expands it: * within a folder, ** for folders below as well.
Words Expand(const std::string& pattern) {
  if (pattern.find('*') == pattern.npos) return {pattern};
  const std::string folder = pattern.substr(0, pattern.find("/*"));
  const bool below = pattern.find("**") != pattern.npos;
  Words sources;
  for (const auto& entry : fs::recursive_directory_iterator(kRoot / folder)) {
    const std::string path = fs::relative(entry.path(), kRoot);
    const bool here = fs::path(path).parent_path() == folder;
    if (path.ends_with(".cc") && (below || here)) sources.push_back(path);
  }
  return sources;
}

/// The contents of all lists of this name in Android.bp, expanded.
Words ListedByAndroid(const std::string& list) {
  Words sources;
  for (const std::string& body : FindAll(Read("Android.bp"), "\\b" + list + R"(: \[([^\]]*)\])")) {
    for (const std::string& pattern : FindAll(body, R"re("([\w/.*]+)")re")) {
      const Words expanded = Expand(pattern);
      sources.insert(sources.end(), expanded.begin(), expanded.end());
    }
  }
  return sources;
}

TEST(AndroidBuild, CompilesTheSourcesThatTheHostCompilesEachOnce) {
  Words expected = {"platform/android/platform.cc"};
  for (const char* folder : {"kvox/common", "kvox/flight", "kvox/sound", "processors", "buffer",
                             "service", "daemon", "libkvox", "client", "tests/common",
                             "tests/processors", "tests/buffer", "tests/service", "tests/daemon"}) {
    const Words sources = ListedByCMake(folder);
    expected.insert(expected.end(), sources.begin(), sources.end());
  }
  std::erase(expected, "tests/buffer/realtime_test.cc");
  Words sources = ListedByAndroid("srcs");
  for (const std::string& excluded : ListedByAndroid("exclude_srcs")) {
    const auto at = std::find(sources.begin(), sources.end(), excluded);
    ASSERT_NE(at, sources.end()) << excluded << " is excluded, but no source";
    sources.erase(at);  // once: another module may have it
  }
  std::sort(sources.begin(), sources.end());
  std::sort(expected.begin(), expected.end());
  Words differing;
  std::set_symmetric_difference(sources.begin(), sources.end(), expected.begin(), expected.end(),
                                std::back_inserter(differing));
  EXPECT_THAT(differing, IsEmpty()) << "in one list alone, or twice in one";
}

TEST(AndroidBuild, HasTheVersionsOfProjectAndInterface) {
  EXPECT_THAT(Read("Android.bp"), HasSubstr("KVOX_VERSION=\\\"" KVOX_VERSION "\\\""));
  const std::string version = std::to_string(aidl::kvox::IKvox::version);
  EXPECT_THAT(Read("interface/Android.bp"), HasSubstr("\"kvox-V" + version + "-ndk\""));
  for (const char* file : {"android/vintf/kvoxd.xml", "android/vintf/compatibility_matrix.xml"}) {
    EXPECT_EQ(FindAll(Read(file), "<version>(.*)</version>"), Words{version}) << file;
  }
}

TEST(AndroidProduct, NamesTheServiceAsTheDaemonRegistersIt) {
  const std::string service = KvoxDescriptor();
  EXPECT_EQ(FindAll(Read("android/kvoxd.rc"), R"(interface aidl (\S+))"), Words{service});
  EXPECT_EQ(FindAll(Read("android/sepolicy/service_contexts"), R"((\S+)\s+u:object_r)"),
            Words{service});
  const std::string manifest = Read("android/vintf/kvoxd.xml");
  EXPECT_EQ(FindAll(manifest, "<name>(.*)</name>").at(0) + "." +
                FindAll(manifest, "<fqname>(.*)</fqname>").at(0),
            service);
  const std::string matrix = Read("android/vintf/compatibility_matrix.xml");
  const Words names = FindAll(matrix, "<name>(.*)</name>");
  EXPECT_EQ(
      names.at(0) + "." + names.at(1) + "/" + FindAll(matrix, "<instance>(.*)</instance>").at(0),
      service);
}

TEST(AndroidProduct, NamesTheNodesAsTheDaemonOpensThem) {
  const std::string contexts = Read("android/sepolicy/file_contexts");
  const std::string any[] = {kTapOutPrefix, kInjectPrefix};
  Words nodes = {std::string("/dev/") + kMarkerDevice, std::string("/dev/") + kControlDevice};
  Words patterns = nodes;
  for (const std::string& prefix : any) {
    nodes.push_back("/dev/" + prefix + "*");
    patterns.push_back("/dev/" + prefix + ".*");
  }
  EXPECT_THAT(FindAll(Read("android/ueventd.kvox.rc"), R"((/dev/\S+))"),
              UnorderedElementsAreArray(nodes));
  EXPECT_THAT(FindAll(contexts, R"((/dev/\S+))"), UnorderedElementsAreArray(patterns));
}

/// Every path that init uses has a label.
TEST(AndroidProduct, LabelsWhatInitStartsAndMakes) {
  const std::string contexts = Read("android/sepolicy/file_contexts");
  const std::string rc = Read("android/kvoxd.rc");
  Words paths = FindAll(rc, R"(service kvoxd (\S+))");
  paths.push_back(FindAll(rc, R"(mkdir (\S+))").at(0));
  const Words patterns = FindAll(contexts, R"((\S+)\s+u:object_r)");
  for (const std::string& path : paths) {
    EXPECT_TRUE(std::any_of(patterns.begin(), patterns.end(), [&](const std::string& pattern) {
      return std::regex_match(path, std::regex(pattern));
    })) << path;
  }
}

}  // namespace
}  // namespace kvox
