// A directory that is gone after the test.
#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <string>

namespace kvox {

class TempDirectory {
 public:
  TempDirectory() : path_(::testing::TempDir() + "kvoxtest.XXXXXX") {
    EXPECT_NE(mkdtemp(path_.data()), nullptr) << path_;
  }
  ~TempDirectory() { std::filesystem::remove_all(path_); }
  TempDirectory(const TempDirectory&) = delete;
  TempDirectory& operator=(const TempDirectory&) = delete;

  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

}  // namespace kvox
