#include <gtest/gtest.h>
#include <stdlib.h>

#include <fstream>
#include <string>

#include "platform/platform.h"
#include "tests/support/process.h"
#include "tests/support/temp_directory.h"

namespace kvox {
namespace {

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
  std::string Contents(const char* file) const { return ReadText(directory_ + "/" + file); }

  const TempDirectory temporary_;
  const std::string directory_ = temporary_.path();
};

TEST_F(WakeLockTest, OnlyAStaleLockOfThatNameIsReleased) {
  MakeFiles("modem kvox2 display\n");
  ReleaseStaleWakeLock("kvox");
  EXPECT_EQ(Contents("wake_unlock"), "");
  MakeFiles("modem kvox display\n");
  ReleaseStaleWakeLock("kvox");
  EXPECT_EQ(Contents("wake_unlock"), "kvox");
}

}  // namespace
}  // namespace kvox
