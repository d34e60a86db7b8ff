#include "bench/packet_bench.h"

#include <fmt/format.h>

#include <chrono>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "bench/child.h"
#include "bench/daemon_under_test.h"
#include "bench/distribution.h"
#include "bench/relay.h"
#include "bench/thread_usage.h"
#include "bench/traffic.h"

namespace kvox::bench {
namespace {

constexpr std::chrono::milliseconds kPeriod{10};
constexpr int kStartPatienceMs = 5000;
constexpr unsigned kWarmUpPackets = 50;

/// A program that carries packets, and its streams.
struct Carrier {
  PrivateDirectory home;
  Lanes lanes;
  std::unique_ptr<Child> relay;
  std::unique_ptr<DaemonUnderTest> daemon;
  pid_t pid = -1;
  std::string io_threads;

  // Of all rounds:
  std::vector<double> cpu_us;  // a packet, I/O threads
  std::vector<uint32_t> round_trips_ns;
  ThreadUsage io;
  ThreadUsage others;
  double packets = 0;

  LaneCounters Count() const {
    LaneCounters sum;
    for (const auto& lane : lanes) {
      sum.sent += lane->counters().sent;
      sum.lost += lane->counters().lost;
      sum.wrong += lane->counters().wrong;
    }
    return sum;
  }
};

void Add(ThreadUsage& sum, const ThreadUsage& part) {
  sum.cpu_ns += part.cpu_ns;
  sum.sleeps += part.sleeps;
  sum.preemptions += part.preemptions;
}

std::unique_ptr<Carrier> MakeCarrier(const PacketCase& packet_case) {
  auto carrier = std::make_unique<Carrier>();
  for (unsigned i = 0; i < packet_case.streams; ++i) {
    carrier->lanes.push_back(
        std::make_unique<Lane>(carrier->home.Folder("dev"), i, packet_case.payload_size));
  }
  return carrier;
}

/// The first packet of each stream also tells that the program is ready.
void WaitUntilCarrying(const Carrier& carrier) {
  for (const auto& lane : carrier.lanes) {
    lane->Send();
    lane->Drain(kStartPatienceMs);
  }
}

std::unique_ptr<Carrier> StartRelay(const PacketCase& packet_case, std::optional<int> core) {
  auto carrier = MakeCarrier(packet_case);
  carrier->relay = std::make_unique<Child>(
      std::vector<std::string>{OwnProgram(), "relay", carrier->home.Folder("dev"),
                               std::to_string(packet_case.streams)},
      carrier->home.path() / "relay", core);
  carrier->pid = carrier->relay->pid();
  carrier->io_threads = kRelayThread;
  WaitUntilCarrying(*carrier);
  return carrier;
}

std::unique_ptr<Carrier> StartDaemon(const PacketCase& packet_case, std::optional<int> core) {
  auto carrier = MakeCarrier(packet_case);
  carrier->daemon = std::make_unique<DaemonUnderTest>(carrier->home, core);
  for (unsigned i = 0; i < packet_case.streams; ++i) carrier->daemon->StartStream(i);
  carrier->pid = carrier->daemon->pid();
  carrier->io_threads = kDaemonIoThread;
  WaitUntilCarrying(*carrier);
  return carrier;
}

void PlayRound(Carrier& carrier, const PacketCase& packet_case, const PacketEffort& effort) {
  if (packet_case.pattern == Pattern::kPaced) RaisePriority();
  PlayPingPong(carrier.lanes, kWarmUpPackets);
  for (const auto& lane : carrier.lanes) lane->TakeRoundTripsNs();
  const uint64_t sent_before = carrier.Count().sent;
  const ProcessUsage before = ReadUsage(carrier.pid, carrier.io_threads);
  if (packet_case.pattern == Pattern::kPingPong) {
    PlayPingPong(carrier.lanes, effort.ping_pongs / packet_case.streams);
  } else {
    PlayPaced(carrier.lanes, effort.periods, kPeriod);
  }
  const ProcessUsage after = ReadUsage(carrier.pid, carrier.io_threads);
  DropPriority();

  const auto packets = static_cast<double>(carrier.Count().sent - sent_before);
  const ThreadUsage io = after.chosen - before.chosen;
  carrier.cpu_us.push_back(io.cpu_ns / packets / 1000);
  carrier.packets += packets;
  Add(carrier.io, io);
  Add(carrier.others, after.others - before.others);
  for (const auto& lane : carrier.lanes) {
    const auto round_trips = lane->TakeRoundTripsNs();
    carrier.round_trips_ns.insert(carrier.round_trips_ns.end(), round_trips.begin(),
                                  round_trips.end());
  }
}

std::string Title(const PacketCase& packet_case, const PacketEffort& effort) {
  if (packet_case.pattern == Pattern::kPingPong) {
    return fmt::format("Packets of {} bytes in ping-pong, all on core {}, {} rounds of {}",
                       packet_case.payload_size, MeasuringCore(), effort.rounds, effort.ping_pongs);
  }
  return fmt::format("Packets of {} bytes, {} streams, one every {} ms, {} rounds of {} periods",
                     packet_case.payload_size, packet_case.streams, kPeriod.count(), effort.rounds,
                     effort.periods);
}

Section Compare(const PacketCase& packet_case, const PacketEffort& effort, const Carrier& relay,
                const Carrier& daemon) {
  std::vector<double> ratios;
  for (size_t i = 0; i < relay.cpu_us.size(); ++i) {
    ratios.push_back(daemon.cpu_us[i] / relay.cpu_us[i]);
  }
  Section section{Title(packet_case, effort), "bare relay", "kvoxd", {}};
  Row cpu{"CPU a packet", "us", Median(relay.cpu_us), Median(daemon.cpu_us), Median(ratios), {}};
  if (packet_case.cpu_aim) cpu.aim = Aim{Aim::Of::kRatio, *packet_case.cpu_aim};
  section.rows.push_back(cpu);
  const auto add = [&](const char* what, const char* unit, std::optional<Aim> aim, auto of) {
    section.rows.push_back({what, unit, of(relay), of(daemon), {}, aim});
  };
  const auto round_trip = [](double share) {
    return [share](const Carrier& c) { return Percentile(c.round_trips_ns, share) / 1000; };
  };
  const auto atMost = [](double limit) { return Aim{Aim::Of::kValue, limit}; };
  add("round trip, median", "us", {}, round_trip(0.5));
  add("round trip, 99 %", "us", {}, round_trip(0.99));
  add("voluntary switches a packet", "", atMost(1),
      [](const Carrier& c) { return static_cast<double>(c.io.sleeps) / c.packets; });
  add("CPU a packet, other threads", "us", {},
      [](const Carrier& c) { return c.others.cpu_ns / c.packets / 1000; });
  add("voluntary switches, other threads", "", {},
      [](const Carrier& c) { return static_cast<double>(c.others.sleeps) / c.packets; });
  add("lost packets", "", atMost(0),
      [](const Carrier& c) { return static_cast<double>(c.Count().lost); });
  add("wrong packets", "", atMost(0),
      [](const Carrier& c) { return static_cast<double>(c.Count().wrong); });
  return section;
}

}  // namespace

uint64_t MeasurePackets(const PacketCase& packet_case, const PacketEffort& effort, Report& report) {
  std::optional<int> core;
  if (packet_case.pattern == Pattern::kPingPong) core = MeasuringCore();
  const auto relay = StartRelay(packet_case, core);
  const auto daemon = StartDaemon(packet_case, core);
  BindToCore(core);
  for (unsigned round = 0; round < effort.rounds; ++round) {
    PlayRound(*relay, packet_case, effort);
    PlayRound(*daemon, packet_case, effort);
  }
  BindToCore(std::nullopt);
  report.Add(Compare(packet_case, effort, *relay, *daemon));
  const LaneCounters a = relay->Count();
  const LaneCounters b = daemon->Count();
  return a.lost + a.wrong + b.lost + b.wrong;
}

}  // namespace kvox::bench
