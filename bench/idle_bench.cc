#include "bench/idle_bench.h"

#include <fmt/format.h>

#include <chrono>
#include <thread>

#include "bench/daemon_under_test.h"
#include "bench/thread_usage.h"
#include "bench/traffic.h"

namespace kvox::bench {
namespace {

constexpr unsigned kStreams = 32;
constexpr uint32_t kPayloadSize = 1920;
constexpr auto kSettling = std::chrono::milliseconds(500);
constexpr double kMemoryAimMib = 12;

}  // namespace

void MeasureIdle(unsigned seconds, Report& report) {
  const PrivateDirectory home;
  Lanes lanes;  // for their FIFOs
  for (unsigned i = 0; i < kStreams; ++i) {
    lanes.push_back(std::make_unique<Lane>(home.Folder("dev"), i, kPayloadSize));
  }
  const DaemonUnderTest daemon(home);
  std::this_thread::sleep_for(kSettling);
  const ThreadUsage before = ReadUsage(daemon.pid(), "").chosen;
  std::this_thread::sleep_for(std::chrono::seconds(seconds));
  const ThreadUsage used = ReadUsage(daemon.pid(), "").chosen - before;
  const double memory_mib = static_cast<double>(ReadResidentKib(daemon.pid())) / 1024;
  report.Add(
      {fmt::format("Idle for {} s, {} device pairs, nothing enabled", seconds, kStreams),
       "",
       "kvoxd",
       {{"wake-ups, all threads",
         "",
         {},
         static_cast<double>(used.sleeps + used.preemptions),
         {},
         Aim{Aim::Of::kValue, 0}},
        {"resident memory", "MiB", {}, memory_mib, {}, Aim{Aim::Of::kValue, kMemoryAimMib}}}});
}

}  // namespace kvox::bench
