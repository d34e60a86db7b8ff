#include "bench/top_bench.h"

#include <fmt/format.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <spawn.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "bench/daemon_under_test.h"
#include "bench/thread_usage.h"
#include "bench/traffic.h"

namespace kvox::bench {
namespace {

constexpr unsigned kStreams = 32;
constexpr uint32_t kPayloadSize = 1920;
constexpr auto kPeriod = std::chrono::milliseconds(10);
constexpr unsigned kPeriodsPerSecond = 100;
constexpr unsigned kSettlingPeriods = 100;
constexpr double kAimPercent = 2;

/// `kvoxctl top` on a terminal that takes all it is shown.
class TopOnTerminal {
 public:
  TopOnTerminal() {
    winsize size = {110, 120, 0, 0};  // every row is seen
    if (openpty(&user_, &terminal_, nullptr, nullptr, &size) != 0) {
      throw std::runtime_error("there is no pseudo-terminal to be had");
    }
    setenv("TERM", "xterm", 1);
    posix_spawn_file_actions_t files;
    posix_spawn_file_actions_init(&files);
    posix_spawn_file_actions_adddup2(&files, terminal_, STDIN_FILENO);
    posix_spawn_file_actions_adddup2(&files, terminal_, STDOUT_FILENO);
    posix_spawn_file_actions_addclose(&files, user_);
    posix_spawn_file_actions_addclose(&files, terminal_);
    std::string words[] = {KVOXCTL_PROGRAM, "top", "--measure"};
    char* argv[] = {words[0].data(), words[1].data(), words[2].data(), nullptr};
    const int failure = posix_spawn(&pid_, argv[0], &files, nullptr, argv, environ);
    posix_spawn_file_actions_destroy(&files);
    if (failure != 0) throw std::runtime_error("cannot run " + words[0]);
    reader_ = std::jthread([this](const std::stop_token& stop) { ReadAll(stop); });
  }
  ~TopOnTerminal() {
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
    reader_ = {};
    close(user_);
    close(terminal_);
  }
  TopOnTerminal(const TopOnTerminal&) = delete;
  TopOnTerminal& operator=(const TopOnTerminal&) = delete;

  pid_t pid() const { return pid_; }
  uint64_t shown_bytes() const { return shown_bytes_; }

 private:
  void ReadAll(const std::stop_token& stop) {
    char bytes[4096];
    while (!stop.stop_requested()) {
      pollfd user = {user_, POLLIN, 0};
      if (poll(&user, 1, 100) != 1) continue;
      const ssize_t size = read(user_, bytes, sizeof bytes);
      if (size > 0) shown_bytes_ += static_cast<uint64_t>(size);
    }
  }

  int user_ = -1;
  int terminal_ = -1;
  pid_t pid_ = -1;
  std::atomic<uint64_t> shown_bytes_ = 0;
  std::jthread reader_;
};

double Percent(const ThreadUsage& used, double elapsed_ns) {
  return used.cpu_ns / elapsed_ns * 100;
}

}  // namespace

uint64_t MeasureTop(unsigned seconds, Report& report) {
  using Clock = std::chrono::steady_clock;
  const PrivateDirectory home;
  Lanes lanes;
  for (unsigned i = 0; i < kStreams; ++i) {
    lanes.push_back(std::make_unique<Lane>(home.Folder("dev"), i, kPayloadSize));
  }
  DaemonUnderTest daemon(home);
  for (unsigned i = 0; i < kStreams; ++i) daemon.StartStream(i);
  const TopOnTerminal top;
  PlayPaced(lanes, kSettlingPeriods, kPeriod);
  const uint64_t shown = top.shown_bytes();
  const ThreadUsage top_before = ReadUsage(top.pid(), "").chosen;
  const ThreadUsage daemon_before = ReadUsage(daemon.pid(), kDaemonIoThread).others;
  const auto begin = Clock::now();
  PlayPaced(lanes, seconds * kPeriodsPerSecond, kPeriod);
  const ThreadUsage top_used = ReadUsage(top.pid(), "").chosen - top_before;
  const ThreadUsage daemon_used = ReadUsage(daemon.pid(), kDaemonIoThread).others - daemon_before;
  const double elapsed_ns = std::chrono::duration<double, std::nano>(Clock::now() - begin).count();
  if (top.shown_bytes() == shown) throw std::runtime_error("kvoxctl top shows nothing");
  uint64_t faults = 0;
  for (const auto& lane : lanes) faults += lane->counters().lost + lane->counters().wrong;
  const Aim aim{Aim::Of::kValue, kAimPercent};
  report.Add(
      {fmt::format("kvoxctl top --measure for {} s beside {} streams", seconds, kStreams),
       "",
       "measured",
       {{"kvoxctl, of a core", "%", {}, Percent(top_used, elapsed_ns), {}, aim},
        {"kvoxd without its I/O threads", "%", {}, Percent(daemon_used, elapsed_ns), {}, aim},
        {"packets lost or wrong",
         "",
         {},
         static_cast<double>(faults),
         {},
         Aim{Aim::Of::kValue, 0}}}});
  return faults;
}

}  // namespace kvox::bench
