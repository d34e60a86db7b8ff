#include "bench/child.h"

#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>

namespace kvox::bench {
namespace {

constexpr int kCannotRun = 127;

/// The cores that this process could use when it started.
const cpu_set_t& UsableCores() {
  static const cpu_set_t cores = [] {
    cpu_set_t set;
    CPU_ZERO(&set);
    sched_getaffinity(0, sizeof set, &set);
    return set;
  }();
  return cores;
}

void Redirect(const char* path, int fd) {
  const int file = open(path, O_WRONLY | O_CREAT | O_TRUNC, 0600);
  if (file >= 0) dup2(file, fd);
}

}  // namespace

int MeasuringCore() {
  int core = CPU_SETSIZE - 1;
  while (core > 0 && !CPU_ISSET(static_cast<size_t>(core), &UsableCores())) --core;
  return core;
}

void BindToCore(std::optional<int> core) {
  cpu_set_t set = UsableCores();
  if (core) {
    CPU_ZERO(&set);
    CPU_SET(static_cast<size_t>(*core), &set);
  }
  sched_setaffinity(0, sizeof set, &set);
}

std::string OwnProgram() {
  return std::filesystem::read_symlink("/proc/self/exe");
}

Child::Child(std::vector<std::string> words, const std::filesystem::path& output,
             std::optional<int> core)
    : program_(words.front()), output_(output) {
  UsableCores();
  std::vector<char*> argv;
  for (std::string& word : words) argv.push_back(word.data());
  argv.push_back(nullptr);
  const std::string out = output.string() + ".out";
  const std::string err = output.string() + ".err";
  const pid_t parent = getpid();
  pid_ = fork();
  if (pid_ < 0) {
    throw std::runtime_error("cannot start " + program_ + ": " + std::strerror(errno));
  }
  if (pid_ > 0) return;
  // In the child, until exec: system calls only, the parent may have had other threads.
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (getppid() != parent) _exit(kCannotRun);
  sched_param ordinary{};
  sched_setscheduler(0, SCHED_OTHER, &ordinary);
  BindToCore(core);
  Redirect(out.c_str(), STDOUT_FILENO);
  Redirect(err.c_str(), STDERR_FILENO);
  execv(argv[0], argv.data());
  _exit(kCannotRun);
}

Child::~Child() {
  if (pid_ <= 0) return;
  kill(pid_, SIGKILL);
  waitpid(pid_, nullptr, 0);
}

std::optional<std::string> Child::Ended() {
  int status = 0;
  if (!end_ && waitpid(pid_, &status, WNOHANG) == pid_) {
    pid_ = -1;
    if (WIFEXITED(status)) {
      end_ = "exit status " + std::to_string(WEXITSTATUS(status));
    } else {
      const int number = WTERMSIG(status);
      end_ = "signal " + std::to_string(number) + " (" + strsignal(number) + ")";
    }
  }
  return end_;
}

void Child::Signal(int number) {
  if (!Ended()) kill(pid_, number);
}

std::string Child::Finish(int seconds) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
  int status = 0;
  while (waitpid(pid_, &status, WNOHANG) == 0) {
    if (std::chrono::steady_clock::now() > deadline) {
      throw std::runtime_error(program_ + " did not end within " + std::to_string(seconds) + " s");
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  pid_ = -1;
  const auto text = [&](const char* kind) {
    std::stringstream content;
    content << std::ifstream(output_.string() + kind).rdbuf();
    return content.str();
  };
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
    throw std::runtime_error(program_ + " failed: " + text(".err"));
  }
  return text(".out");
}

}  // namespace kvox::bench
