// Programs as children of a test or a measurement, and waiting for what they do. Standard library
// only, so that programs without GoogleTest can use it too.
#pragma once

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace kvox {

/// How long a test waits for anything.
inline constexpr std::chrono::seconds kWaitLimit{20};

/// Waits until the condition holds; false after kWaitLimit.
inline bool WaitFor(const std::function<bool()>& condition) {
  const auto deadline = std::chrono::steady_clock::now() + kWaitLimit;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    poll(nullptr, 0, 1);
  }
  return true;
}

/// The same for what takes microseconds.
inline bool YieldUntil(const std::function<bool()>& condition) {
  const auto deadline = std::chrono::steady_clock::now() + kWaitLimit;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::yield();
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

/// A program that runs with this process's environment. Its output goes to the files OUTPUT.out and
/// OUTPUT.err. It is killed with the object, and by the kernel when the thread that started it
/// ends. One thread.
class Process {
 public:
  /// `program` is a path or a name to look up in PATH. `in_child` runs in the child before the
  /// program; it may make system calls only, because this process may have other threads.
  /// Throws std::runtime_error.
  Process(const std::string& program, std::vector<std::string> arguments,
          const std::filesystem::path& output, const std::function<void()>& in_child = nullptr)
      : program_(program), out_(output.string() + ".out"), err_(output.string() + ".err") {
    arguments.insert(arguments.begin(), program);
    std::vector<char*> argv;
    for (std::string& argument : arguments) argv.push_back(argument.data());
    argv.push_back(nullptr);
    const pid_t parent = getpid();
    pid_ = fork();
    if (pid_ == 0) {
      prctl(PR_SET_PDEATHSIG, SIGKILL);
      const bool ready =
          getppid() == parent && Redirect(out_, STDOUT_FILENO) && Redirect(err_, STDERR_FILENO);
      if (ready && in_child) in_child();
      if (ready) execvp(argv[0], argv.data());
      _exit(kCannotRun);
    }
    if (pid_ < 0) throw std::runtime_error("cannot start " + program + ": " + std::strerror(errno));
  }
  ~Process() {
    if (Ended()) return;
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }
  Process(const Process&) = delete;
  Process& operator=(const Process&) = delete;

  pid_t pid() const { return pid_; }

  /// Does nothing when the program has ended.
  void Signal(int number) {
    if (!Ended()) kill(pid_, number);
  }

  /// Stops the program until Signal(SIGCONT). Returns when all of its threads stand still: some may
  /// run on for a moment after the signal. Throws std::runtime_error after kWaitLimit.
  void Freeze() {
    Signal(SIGSTOP);
    int status = 0;
    const bool stopped = WaitFor(
        [&] { return waitpid(pid_, &status, WUNTRACED | WNOHANG) == pid_ && WIFSTOPPED(status); });
    if (!stopped) throw std::runtime_error(program_ + " did not stop");
  }

  /// The exit status, or minus the signal that ended it; none while it runs.
  std::optional<int> Ended() {
    int status = 0;
    if (!end_ && waitpid(pid_, &status, WNOHANG) == pid_) {
      end_ = WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
    }
    return end_;
  }

  /// Waits for the end and returns what Ended() does. Throws std::runtime_error when the program
  /// still runs after kWaitLimit.
  int Wait() {
    if (!Ended()) {
      const int fd = static_cast<int>(syscall(SYS_pidfd_open, pid_, 0));
      pollfd end{.fd = fd, .events = POLLIN, .revents = 0};
      poll(&end, 1, std::chrono::milliseconds(kWaitLimit).count());
      close(fd);
    }
    if (Ended()) return *end_;
    throw std::runtime_error(program_ + " still runs after " + std::to_string(kWaitLimit.count()) +
                             " s; it printed: " + Out() + Err());
  }

  std::string Out() const { return ReadText(out_); }
  std::string Err() const { return ReadText(err_); }

 private:
  static constexpr int kCannotRun = 127;

  static bool Redirect(const std::filesystem::path& file, int to) {
    const int fd = open(file.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    return fd >= 0 && dup2(fd, to) == to;
  }

  const std::string program_;
  const std::filesystem::path out_;
  const std::filesystem::path err_;
  pid_t pid_ = -1;
  std::optional<int> end_;
};

}  // namespace kvox
