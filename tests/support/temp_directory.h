// A private directory that vanishes with the test, and the device nodes a test puts into it.
#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "kvox/common/unique_fd.h"

namespace kvox {

class TempDirectory {
 public:
  TempDirectory() {
    std::string name = ::testing::TempDir() + "kvox_test.XXXXXX";
    EXPECT_NE(mkdtemp(name.data()), nullptr);
    path_ = name;
  }
  ~TempDirectory() { std::filesystem::remove_all(path_); }
  TempDirectory(const TempDirectory&) = delete;
  TempDirectory& operator=(const TempDirectory&) = delete;

  const std::filesystem::path& path() const { return path_; }
  std::filesystem::path operator/(const std::string& name) const { return path_ / name; }

  void MakeFifo(const std::string& name) const {
    EXPECT_EQ(mkfifo((*this / name).c_str(), 0600), 0);
  }
  void Remove(const std::string& name) const { unlink((*this / name).c_str()); }

 private:
  std::filesystem::path path_;
};

}  // namespace kvox
