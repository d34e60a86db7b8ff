// A program on a terminal of its own, as a shell's foreground job, so that it can be stopped.
#pragma once

#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "tests/support/process.h"

namespace kvox {

/// Killed with the object, if it still runs. What it writes to standard error goes to a file beside
/// `output`.
class Terminal {
 public:
  Terminal(const std::string& program, std::vector<std::string> words,
           const std::filesystem::path& output, winsize size = {30, 120, 0, 0})
      : err_(output.string() + ".err") {
    EXPECT_EQ(openpty(&user_, &terminal_, nullptr, nullptr, &size), 0);
    modes_before_ = Modes();
    words.insert(words.begin(), program);
    int started[2];
    EXPECT_EQ(pipe(started), 0);
    shell_ = fork();
    if (shell_ == 0) RunShell(words, started[1]);
    EXPECT_EQ(read(started[0], &pid_, sizeof pid_), static_cast<ssize_t>(sizeof pid_));
    close(started[0]);
    close(started[1]);
  }
  ~Terminal() {
    if (shell_ > 0) {
      kill(pid_, SIGKILL);
      Wait();
    }
    close(terminal_);
    close(user_);
  }
  Terminal(const Terminal&) = delete;
  Terminal& operator=(const Terminal&) = delete;

  void Signal(int number) { kill(pid_, number); }
  void Press(const std::string& keys) {
    EXPECT_EQ(write(user_, keys.data(), keys.size()), static_cast<ssize_t>(keys.size()));
  }
  void Resize(unsigned short lines, unsigned short columns) {
    const winsize size = {lines, columns, 0, 0};
    EXPECT_EQ(ioctl(user_, TIOCSWINSZ, &size), 0);
  }

  /// All that has been shown so far, as bytes.
  const std::string& Shown() {
    char bytes[4096];
    for (pollfd user = {user_, POLLIN, 0}; poll(&user, 1, 0) == 1;) {
      const ssize_t size = read(user_, bytes, sizeof bytes);
      if (size <= 0) break;
      shown_.append(bytes, static_cast<size_t>(size));
    }
    return shown_;
  }

  /// True once it has shown the text, `from` bytes on.
  bool Shows(const std::string& text, size_t from = 0) {
    return WaitFor([&] { return Shown().find(text, from) != shown_.npos; });
  }

  /// As the program found it.
  const termios& modes_before() const { return modes_before_; }

  termios Modes() const {
    termios modes;
    std::memset(&modes, 0, sizeof modes);
    tcgetattr(terminal_, &modes);
    return modes;
  }

  bool IsStopped() const {
    const std::string stat = ReadText("/proc/" + std::to_string(pid_) + "/stat");
    return stat.find(") T ") != stat.npos;
  }

  /// The exit status, or minus the signal that ended it.
  int Wait() {
    int status = 0;
    EXPECT_TRUE(WaitFor([&] {
      Shown();  // lest it waits for room
      return waitpid(shell_, &status, WNOHANG) == shell_;
    }));
    shell_ = -1;
    Shown();
    return WEXITSTATUS(status) > 128 ? 128 - WEXITSTATUS(status) : WEXITSTATUS(status);
  }
  std::string Err() const { return ReadText(err_); }

 private:
  /// Leads the terminal's session while its job runs, and ends as the job does.
  [[noreturn]] void RunShell(std::vector<std::string>& words, int started) {
    signal(SIGTTOU, SIG_IGN);
    setsid();
    ioctl(terminal_, TIOCSCTTY, 0);
    const pid_t job = fork();
    if (job == 0) RunJob(words);
    setpgid(job, job);
    tcsetpgrp(terminal_, job);
    static_cast<void>(!write(started, &job, sizeof job));
    int status = 0;
    waitpid(job, &status, 0);
    _exit(WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status));
  }

  [[noreturn]] void RunJob(std::vector<std::string>& words) {
    setpgid(0, 0);
    tcsetpgrp(terminal_, getpid());
    signal(SIGTTOU, SIG_DFL);
    signal(SIGPIPE, SIG_DFL);
    const int err = open(err_.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    dup2(terminal_, STDIN_FILENO);
    dup2(terminal_, STDOUT_FILENO);
    dup2(err, STDERR_FILENO);
    close(user_);
    std::vector<char*> argv;
    for (std::string& word : words) argv.push_back(word.data());
    argv.push_back(nullptr);
    execv(argv[0], argv.data());
    _exit(127);
  }

  const std::filesystem::path err_;
  int user_ = -1;      // the user's side
  int terminal_ = -1;  // the program's
  pid_t shell_ = -1;
  pid_t pid_ = -1;
  termios modes_before_ = {};
  std::string shown_;
};

}  // namespace kvox
