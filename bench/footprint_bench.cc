// Resources of whole processes: kvoxctl for one call, the idle daemon, kvoxctl top.

#include <fmt/format.h>
#include <stdlib.h>

#include <atomic>
#include <chrono>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "bench/benchmarks.h"
#include "bench/daemon_under_test.h"
#include "bench/loopback_stream.h"
#include "bench/thread_usage.h"
#include "tests/support/proc.h"
#include "tests/support/terminal.h"

namespace kvox::bench {
namespace {

using Clock = std::chrono::steady_clock;

constexpr double kProcessRatioAim = 3;

constexpr unsigned kStreams = 32;
constexpr uint32_t kPayloadSize = 1920;

constexpr auto kIdleSettling = std::chrono::milliseconds(500);
constexpr double kMemoryAimMib = 12;

constexpr auto kPeriod = std::chrono::milliseconds(10);
constexpr unsigned kPeriodsPerSecond = 100;
constexpr unsigned kTopSettlingPeriods = 100;
constexpr double kTopAimPercent = 2;

/// Runs a program to its end. Returns how long that took in milliseconds.
double TimeProcess(const HostDirectories& home, const char* program,
                   const std::vector<std::string>& arguments) {
  const auto begin = Clock::now();
  Process process(program, arguments, home / "timed");
  if (process.Wait() != 0) {
    throw std::runtime_error(std::string("cannot run ") + program + ": " + process.Err());
  }
  return std::chrono::duration<double, std::milli>(Clock::now() - begin).count();
}

}  // namespace

void MeasureClientProcess(unsigned runs, Report& report) {
  const HostDirectories home;
  const DaemonUnderTest daemon(home);
  std::vector<double> bare;
  std::vector<double> measured;
  for (unsigned i = 0; i < runs; ++i) {
    bare.push_back(TimeProcess(home, "true", {}));
    measured.push_back(TimeProcess(home, KVOXCTL_PROGRAM, {"call", "Ping"}));
  }
  const auto percentile = [&](const char* what, double share, std::optional<Aim> aim) {
    return Row{what, "ms", Percentile(measured, share), aim, Percentile(bare, share)};
  };
  report.Add({fmt::format("kvoxctl call Ping as a process, {} runs", runs),
              "true",
              "kvoxctl",
              {percentile("start to end, median", 0.5, RatioAtMost(kProcessRatioAim)),
               percentile("start to end, 99 %", 0.99, {})}});
}

void MeasureIdle(unsigned seconds, Report& report) {
  const HostDirectories home;
  const LoopbackStreams streams = MakeStreams(home / "dev", kStreams, kPayloadSize);
  const DaemonUnderTest daemon(home);
  std::this_thread::sleep_for(kIdleSettling);
  const ThreadUsage before = ReadUsage(daemon.pid(), "").chosen;
  std::this_thread::sleep_for(std::chrono::seconds(seconds));
  const ThreadUsage used = ReadUsage(daemon.pid(), "").chosen - before;
  const double memory_mib = static_cast<double>(ReadResources(daemon.pid()).memory_kib) / 1024;
  report.Add({fmt::format("Idle for {} s, {} device pairs, nothing enabled", seconds, kStreams),
              "",
              "kvoxd",
              {{"wake-ups, all threads", "", static_cast<double>(used.sleeps + used.preemptions),
                AtMost(0)},
               {"resident memory", "MiB", memory_mib, AtMost(kMemoryAimMib)}}});
}

uint64_t MeasureTop(unsigned seconds, Report& report) {
  const HostDirectories home;
  const LoopbackStreams streams = MakeStreams(home / "dev", kStreams, kPayloadSize);
  DaemonUnderTest daemon(home);
  for (unsigned i = 0; i < kStreams; ++i) daemon.StartStream(i);
  setenv("TERM", "xterm", 1);
  constexpr winsize kEveryRowIsSeen = {110, 120, 0, 0};
  Terminal top(KVOXCTL_PROGRAM, {"top", "--measure"}, home / "top", kEveryRowIsSeen);
  std::atomic<size_t> shown = 0;
  const std::jthread reader([&](const std::stop_token& stop) {
    while (!stop.stop_requested()) {
      shown = top.Shown().size();
      std::this_thread::sleep_for(kPeriod);
    }
  });
  PlayPaced(streams, kTopSettlingPeriods, kPeriod);
  const size_t shown_before = shown;
  const ThreadUsage top_before = ReadUsage(top.pid(), "").chosen;
  const ThreadUsage daemon_before = ReadUsage(daemon.pid(), kDaemonIoThread).others;
  const auto begin = Clock::now();
  PlayPaced(streams, seconds * kPeriodsPerSecond, kPeriod);
  const ThreadUsage top_used = ReadUsage(top.pid(), "").chosen - top_before;
  const ThreadUsage daemon_used = ReadUsage(daemon.pid(), kDaemonIoThread).others - daemon_before;
  const double elapsed_ns = std::chrono::duration<double, std::nano>(Clock::now() - begin).count();
  if (shown == shown_before) throw std::runtime_error("kvoxctl top shows nothing");
  const StreamCounters counters = Sum(streams);
  const auto share = [&](const char* what, const ThreadUsage& used) {
    return Row{what, "%", used.cpu_ns / elapsed_ns * 100, AtMost(kTopAimPercent)};
  };
  report.Add({fmt::format("kvoxctl top --measure for {} s beside {} streams", seconds, kStreams),
              "",
              "measured",
              {share("kvoxctl, of a core", top_used),
               share("kvoxd without its I/O threads", daemon_used),
               {"packets lost or wrong", "", static_cast<double>(counters.faults()), AtMost(0)}}});
  return counters.faults();
}

}  // namespace kvox::bench
