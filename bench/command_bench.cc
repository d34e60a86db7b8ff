// The command path.

#include <aidl/kvox/IKvox.h>
#include <android/binder_manager.h>
#include <fmt/format.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <functional>
#include <memory>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "bench/bare_calls.h"
#include "bench/benchmarks.h"
#include "bench/daemon_under_test.h"
#include "bench/scheduling.h"
#include "interface/service_name.h"
#include "kvox/common/four_cc.h"
#include "platform/linux/frames.h"
#include "platform/linux/parcel.h"

namespace kvox::bench {
namespace {

using Clock = std::chrono::steady_clock;

constexpr unsigned kClients = 8;
constexpr double kRatioAim = 2;
constexpr double kCallsAim = 20000;  // per second, all clients together
constexpr auto kClientStart = std::chrono::milliseconds(300);
constexpr auto kProcessor = static_cast<int32_t>(MakeFourCc("st00"));

/// Commands that need no co-processor.
struct Command {
  const char* name;
  uint32_t code;
  std::vector<int32_t> arguments;
  std::function<ndk::ScopedAStatus(IKvox&)> call;
};

std::vector<Command> Commands() {
  return {
      {"Ping", IKvox::TRANSACTION_Ping, {}, [](IKvox& kvox) { return kvox.Ping(); }},
      {"ProcessorIsEnabled", IKvox::TRANSACTION_ProcessorIsEnabled, {kProcessor}, [](IKvox& kvox) {
         IKvox::CommandResult result;
         return kvox.ProcessorIsEnabled(kProcessor, &result);
       }}};
}

/// The bytes of one call and its reply on the socket.
CallSizes SizesOf(const Command& command, IKvox& kvox) {
  const ndk::SpAIBinder binder = kvox.asBinder();
  ndk::ScopedAParcel in;
  ndk::ScopedAParcel out;
  AIBinder_prepareTransaction(binder.get(), in.getR());
  for (const int32_t argument : command.arguments) AParcel_writeInt32(in.get(), argument);
  const size_t request = in.get()->data().size();
  if (AIBinder_transact(binder.get(), command.code, in.getR(), out.getR(), 0) != STATUS_OK) {
    throw std::runtime_error(std::string("kvoxd does not reply to ") + command.name);
  }
  return {sizeof(binder::FrameHeader) + request,
          sizeof(binder::FrameHeader) + out.get()->data().size()};
}

/// Round trips in microseconds.
std::vector<double> TimeCalls(unsigned calls, const std::function<void()>& call) {
  std::vector<double> times;
  times.reserve(calls);
  for (unsigned i = 0; i < calls; ++i) {
    const auto begin = Clock::now();
    call();
    times.push_back(std::chrono::duration<double, std::micro>(Clock::now() - begin).count());
  }
  return times;
}

/// The rows of one command, its calls and bare ones in alternation.
void MeasureCommand(const Command& command, DaemonUnderTest& daemon, const HostDirectories& home,
                    const CommandWorkload& workload, Section& section) {
  const CallSizes sizes = SizesOf(command, daemon.service());
  const std::string socket = home / command.name;
  const Process server(
      kOwnProgram,
      {"bare-server", socket, std::to_string(sizes.request), std::to_string(sizes.reply)},
      home / "bare-server");
  BareClient client(socket, sizes);
  std::vector<double> bare;
  std::vector<double> measured;
  std::vector<double> ratios;
  for (unsigned round = 0; round < workload.rounds; ++round) {
    const auto bare_times = TimeCalls(workload.calls, [&] { client.Call(); });
    const auto times = TimeCalls(workload.calls, [&] {
      if (!command.call(daemon.service()).isOk()) {
        throw std::runtime_error(std::string(command.name) + " failed; has kvoxd stopped?");
      }
    });
    ratios.push_back(Median(times) / Median(bare_times));
    bare.insert(bare.end(), bare_times.begin(), bare_times.end());
    measured.insert(measured.end(), times.begin(), times.end());
  }
  const std::string name = command.name;
  section.rows.push_back({name + ", median", "us", Median(measured), RatioAtMost(kRatioAim),
                          Median(bare), Median(ratios)});
  section.rows.push_back(
      {name + ", 99 %", "us", Percentile(measured, 0.99), {}, Percentile(bare, 0.99)});
}

void MeasureOn(std::optional<int> core, const CommandWorkload& workload, Report& report) {
  BindToCore(core);
  const HostDirectories home;
  DaemonUnderTest daemon(home);
  daemon.MakeProcessor(static_cast<FourCc>(kProcessor), MakeFourCc("pass"));
  Section section{fmt::format("Calls of one client, {}, {} rounds of {}",
                              core ? fmt::format("all on core {}", *core) : "on any core",
                              workload.rounds, workload.calls),
                  "bare socket", "kvoxd"};
  for (const Command& command : Commands())
    MeasureCommand(command, daemon, home, workload, section);
  BindToCore(std::nullopt);
  report.Add(std::move(section));
}

int64_t SteadyNs(Clock::time_point time) {
  return std::chrono::nanoseconds(time.time_since_epoch()).count();
}

}  // namespace

void MeasureCommands(const CommandWorkload& workload, Report& report) {
  MeasureOn(MeasuringCore(), workload, report);
  MeasureOn(std::nullopt, workload, report);
}

uint64_t MeasureParallelClients(const CommandWorkload& workload, Report& report) {
  const HostDirectories home;
  const DaemonUnderTest daemon(home);
  const auto from = Clock::now() + kClientStart;
  const auto until = from + std::chrono::milliseconds(workload.client_ms);
  std::vector<std::unique_ptr<Process>> clients;
  for (unsigned i = 0; i < kClients; ++i) {
    clients.push_back(
        std::make_unique<Process>(kOwnProgram,
                                  std::vector<std::string>{"client", std::to_string(SteadyNs(from)),
                                                           std::to_string(SteadyNs(until))},
                                  home / ("client" + std::to_string(i))));
  }
  uint64_t calls = 0;
  uint64_t errors = 0;
  for (const auto& client : clients) {
    if (client->Wait() != 0) throw std::runtime_error("a client failed: " + client->Err());
    uint64_t made = 0;
    uint64_t failed = 0;
    std::istringstream(client->Out()) >> made >> failed;
    calls += made;
    errors += failed;
  }
  const double seconds = workload.client_ms / 1000.0;
  report.Add({fmt::format("Calls of {} clients in parallel, {:g} s", kClients, seconds),
              "",
              "kvoxd",
              {{"Ping", "calls a second", static_cast<double>(calls) / seconds,
                Aim{Aim::Of::kValue, kCallsAim, Aim::Bound::kAtLeast}},
               {"errors", "", static_cast<double>(errors), AtMost(0)}}});
  return errors;
}

int RunClient(int64_t from_ns, int64_t until_ns) {
  const auto kvox =
      IKvox::fromBinder(ndk::SpAIBinder(AServiceManager_getService(KvoxDescriptor())));
  if (!kvox) return 1;
  std::this_thread::sleep_until(Clock::time_point(std::chrono::nanoseconds(from_ns)));
  uint64_t calls = 0;
  uint64_t errors = 0;
  while (SteadyNs(Clock::now()) < until_ns) {
    ++calls;
    if (!kvox->Ping().isOk()) ++errors;
  }
  printf("%llu %llu\n", static_cast<unsigned long long>(calls),
         static_cast<unsigned long long>(errors));
  fflush(stdout);
  _exit(0);  // the binder's threads need no clean shutdown
}

}  // namespace kvox::bench
