// A program on its own pseudo-terminal, as a shell's foreground job, so that it can be stopped.
#pragma once

#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <filesystem>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "tests/support/process.h"

namespace kvox {

/// Killed with the object. What the program writes to standard error goes to the file OUTPUT.err.
/// One thread.
class Terminal {
 public:
  /// Throws std::runtime_error.
  Terminal(const std::string& program, const std::vector<std::string>& words,
           const std::filesystem::path& output, winsize size = {30, 120, 0, 0}) {
    int started[2];
    if (openpty(&user_, &terminal_, nullptr, nullptr, &size) != 0 ||
        pipe2(started, O_CLOEXEC) != 0) {
      throw std::runtime_error("cannot open a pseudo-terminal");
    }
    modes_before_ = Modes();
    shell_ = std::make_unique<Process>(program, words, output, [&] { LeadJob(started[1]); });
    const ssize_t size_read = read(started[0], &job_, sizeof job_);
    close(started[0]);
    close(started[1]);
    if (size_read != sizeof job_) throw std::runtime_error("cannot start " + program);
  }
  ~Terminal() {
    if (!shell_->Ended()) kill(job_, SIGKILL);
    close(terminal_);
    close(user_);
  }
  Terminal(const Terminal&) = delete;
  Terminal& operator=(const Terminal&) = delete;

  pid_t pid() const { return job_; }

  void Signal(int number) { kill(job_, number); }
  void Press(const std::string& keys) {
    static_cast<void>(!write(user_, keys.data(), keys.size()));
  }
  void Resize(unsigned short lines, unsigned short columns) {
    const winsize size = {lines, columns, 0, 0};
    ioctl(user_, TIOCSWINSZ, &size);
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
    termios modes = {};
    tcgetattr(terminal_, &modes);
    return modes;
  }

  bool IsStopped() const {
    return ReadText("/proc/" + std::to_string(job_) + "/stat").find(") T ") != std::string::npos;
  }

  /// The exit status, or minus the signal that ended the program. Throws std::runtime_error when it
  /// still runs after kWaitLimit.
  int Wait() {
    // A program that waits for room on the terminal never ends.
    WaitFor([&] { return Shown(), shell_->Ended().has_value(); });
    const int status = shell_->Wait();
    Shown();
    return status > 128 ? 128 - status : status;
  }
  std::string Err() const { return shell_->Err(); }

 private:
  /// In the child. Returns in the job, its own child; the rest leads the terminal's
  /// session and ends as the job does.
  void LeadJob(int started) const {
    signal(SIGTTOU, SIG_IGN);
    setsid();
    ioctl(terminal_, TIOCSCTTY, 0);
    const pid_t job = fork();
    if (job == 0) return BecomeJob();
    setpgid(job, job);
    tcsetpgrp(terminal_, job);
    static_cast<void>(!write(started, &job, sizeof job));
    int status = 0;
    waitpid(job, &status, 0);
    _exit(WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status));
  }

  void BecomeJob() const {
    setpgid(0, 0);
    tcsetpgrp(terminal_, getpid());
    signal(SIGTTOU, SIG_DFL);
    signal(SIGPIPE, SIG_DFL);
    dup2(terminal_, STDIN_FILENO);
    dup2(terminal_, STDOUT_FILENO);
    close(user_);
  }

  int user_ = -1;      // the user's side
  int terminal_ = -1;  // the program's
  std::unique_ptr<Process> shell_;
  pid_t job_ = -1;
  termios modes_before_ = {};
  std::string shown_;
};

}  // namespace kvox
