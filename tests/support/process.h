// The project's programs as children of a test, and waiting for what they do.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

namespace kvox {

/// Waits until the condition holds; false after 20 seconds.
inline bool WaitFor(const std::function<bool()>& condition) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    poll(nullptr, 0, 1);
  }
  return true;
}

inline std::string ReadText(const std::filesystem::path& path) {
  std::stringstream text;
  text << std::ifstream(path).rdbuf();
  return text.str();
}

inline int CountOf(const std::string& part, const std::string& text) {
  int count = 0;
  for (size_t at = text.find(part); at != text.npos; at = text.find(part, at + 1)) ++count;
  return count;
}

inline std::vector<std::string> Words(const std::string& line) {
  std::istringstream stream(line);
  return {std::istream_iterator<std::string>(stream), {}};
}

/// A run of a program with this process's environment. What it prints goes into two files beside
/// `output`. Killed with the object, if it still runs.
class Process {
 public:
  Process(const std::string& program, std::vector<std::string> arguments,
          const std::filesystem::path& output)
      : out_(output.string() + ".out"), err_(output.string() + ".err") {
    arguments.insert(arguments.begin(), program);
    std::vector<char*> argv;
    for (std::string& argument : arguments) argv.push_back(argument.data());
    argv.push_back(nullptr);
    posix_spawn_file_actions_t files;
    posix_spawn_file_actions_init(&files);
    constexpr int kCreate = O_WRONLY | O_CREAT | O_TRUNC;
    posix_spawn_file_actions_addopen(&files, STDOUT_FILENO, out_.c_str(), kCreate, 0600);
    posix_spawn_file_actions_addopen(&files, STDERR_FILENO, err_.c_str(), kCreate, 0600);
    EXPECT_EQ(posix_spawn(&pid_, program.c_str(), &files, nullptr, argv.data(), environ), 0);
    posix_spawn_file_actions_destroy(&files);
  }
  ~Process() {
    if (pid_ > 0) {
      kill(pid_, SIGKILL);
      Wait();
    }
  }
  Process(const Process&) = delete;
  Process& operator=(const Process&) = delete;

  pid_t pid() const { return pid_; }
  void Signal(int number) { kill(pid_, number); }

  /// The exit status, or minus the signal that ended it.
  int Wait() {
    int status = 0;
    EXPECT_TRUE(WaitFor([&] { return waitpid(pid_, &status, WNOHANG) == pid_; }));
    pid_ = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
  }
  std::string Out() const { return ReadText(out_); }
  std::string Err() const { return ReadText(err_); }

 private:
  const std::filesystem::path out_;
  const std::filesystem::path err_;
  pid_t pid_ = -1;
};

}  // namespace kvox
