#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <hardware_legacy/power.h>
#include <stdlib.h>
#include <sys/file.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include "platform/linux/unique_fd.h"
#include "platform/platform.h"
#include "tests/platform/temp_directory.h"

namespace kvox {
namespace {

constexpr char kService[] = "kvox.IKvox/default";

class WakeLockTest : public ::testing::Test {
 protected:
  void SetUp() override {
    setenv("KVOX_WAKE_LOCK_DIR", directory_.c_str(), 1);
    setenv("KVOX_RUNTIME_DIR", directory_.c_str(), 1);
  }

  void MakeFiles(const char* held) {
    std::ofstream(directory_ + "/wake_lock") << held;
    std::ofstream(directory_ + "/wake_unlock") << "";
  }
  std::string Contents(const char* file) const {
    std::ostringstream text;
    text << std::ifstream(directory_ + "/" + file).rdbuf();
    return text.str();
  }

  const TempDirectory temporary_;
  const std::string directory_ = temporary_.path();
};

TEST_F(WakeLockTest, NamesGoIntoTheKernelsFiles) {
  MakeFiles("");
  EXPECT_EQ(acquire_wake_lock(PARTIAL_WAKE_LOCK, "kvox"), 0);
  EXPECT_EQ(Contents("wake_lock"), "kvox");
  EXPECT_EQ(release_wake_lock("kvox"), 0);
  EXPECT_EQ(Contents("wake_unlock"), "kvox");
}

TEST_F(WakeLockTest, OnlyAStaleLockOfThatNameIsReleased) {
  MakeFiles("modem kvox2 display\n");
  ReleaseStaleWakeLock("kvox", kService);
  EXPECT_EQ(Contents("wake_unlock"), "");
  MakeFiles("modem kvox display\n");
  ReleaseStaleWakeLock("kvox", kService);
  EXPECT_EQ(Contents("wake_unlock"), "kvox");
}

TEST_F(WakeLockTest, ALiveServicesLockIsLeftAlone) {
  MakeFiles("kvox");
  {
    const binder::UniqueFd lock(
        open((directory_ + "/kvox.IKvox:default.lock").c_str(), O_RDWR | O_CREAT, 0600));
    ASSERT_EQ(flock(lock.get(), LOCK_EX), 0);
    ReleaseStaleWakeLock("kvox", kService);
    EXPECT_EQ(Contents("wake_unlock"), "");
  }
  ReleaseStaleWakeLock("kvox", kService);
  EXPECT_EQ(Contents("wake_unlock"), "kvox") << "the file of a dead one holds no lock";
}

TEST_F(WakeLockTest, WithoutTheFilesLocksAreCounted) {
  ReleaseStaleWakeLock("kvox", kService);
  EXPECT_EQ(release_wake_lock("kvox"), -EINVAL);
  EXPECT_EQ(acquire_wake_lock(PARTIAL_WAKE_LOCK, "kvox"), 0);
  EXPECT_EQ(acquire_wake_lock(PARTIAL_WAKE_LOCK, "kvox"), 0);
  EXPECT_EQ(release_wake_lock("kvox"), 0);
  EXPECT_EQ(release_wake_lock("kvox"), 0);
  EXPECT_EQ(release_wake_lock("kvox"), -EINVAL);
}

TEST_F(WakeLockTest, ARefusalOfTheKernelsIsAnswered) {
  std::filesystem::create_directory(directory_ + "/wake_lock");
  std::ofstream(directory_ + "/wake_unlock") << "";
  EXPECT_EQ(acquire_wake_lock(PARTIAL_WAKE_LOCK, "kvox"), -EISDIR);
}

}  // namespace
}  // namespace kvox
