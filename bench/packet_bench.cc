// The packet path.

#include <fmt/format.h>

#include <chrono>
#include <filesystem>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "bench/benchmarks.h"
#include "bench/daemon_under_test.h"
#include "bench/loopback_stream.h"
#include "bench/relay.h"
#include "bench/scheduling.h"
#include "bench/thread_usage.h"

namespace kvox::bench {
namespace {

constexpr std::chrono::milliseconds kPeriod{10};
constexpr int kStartTimeoutMs = 5000;
constexpr unsigned kWarmUpPackets = 50;

/// A program that forwards packets, its streams, and the totals of all rounds.
struct Forwarder {
  HostDirectories home;
  LoopbackStreams streams;
  std::unique_ptr<Process> recorder;  // between the streams and the relay
  std::unique_ptr<Process> relay;
  std::unique_ptr<DaemonUnderTest> daemon;
  pid_t pid = -1;
  std::string io_threads;  // how their names begin

  std::vector<double> cpu_us;  // per packet, I/O threads
  std::vector<uint32_t> round_trips_ns;
  ThreadUsage io;
  ThreadUsage others;
  double packets = 0;
};

std::unique_ptr<Forwarder> MakeForwarder(const PacketCase& packet_case) {
  auto forwarder = std::make_unique<Forwarder>();
  forwarder->streams =
      MakeStreams(forwarder->home / "dev", packet_case.streams, packet_case.payload_size);
  return forwarder;
}

/// The first packet of each stream shows that the program is ready.
void WaitUntilReady(const Forwarder& forwarder) {
  for (const auto& stream : forwarder.streams) {
    stream->Send();
    stream->Drain(kStartTimeoutMs);
  }
}

void StartRelay(Forwarder& relay, const std::filesystem::path& devices, unsigned streams) {
  relay.relay = std::make_unique<Process>(
      kOwnProgram, std::vector<std::string>{"relay", devices, std::to_string(streams)},
      relay.home / "relay");
  relay.pid = relay.relay->pid();
  relay.io_threads = kRelayThread;
  WaitUntilReady(relay);
}

std::unique_ptr<Forwarder> StartRelay(const PacketCase& packet_case) {
  auto relay = MakeForwarder(packet_case);
  StartRelay(*relay, relay->home / "dev", packet_case.streams);
  return relay;
}

/// What it reads and writes passes through `kvosim record`.
std::unique_ptr<Forwarder> StartRecordedRelay(const PacketCase& packet_case) {
  auto relay = MakeForwarder(packet_case);
  const std::filesystem::path recorded = relay->home / "recorded";
  create_directory(recorded);
  relay->recorder =
      std::make_unique<Process>(KVOSIM_PROGRAM,
                                std::vector<std::string>{"record", "--from", relay->home / "dev",
                                                         "--to", recorded, relay->home / "pcapng"},
                                relay->home / "recorder");
  const auto last = recorded / fmt::format("xdv-kvox_tapout{}", packet_case.streams - 1);
  if (!WaitFor([&] { return exists(last); })) throw std::runtime_error(relay->recorder->Err());
  StartRelay(*relay, recorded, packet_case.streams);
  return relay;
}

std::unique_ptr<Forwarder> StartDaemon(const PacketCase& packet_case) {
  auto daemon = MakeForwarder(packet_case);
  daemon->daemon = std::make_unique<DaemonUnderTest>(daemon->home);
  for (unsigned i = 0; i < packet_case.streams; ++i) daemon->daemon->StartStream(i);
  daemon->pid = daemon->daemon->pid();
  daemon->io_threads = kDaemonIoThread;
  WaitUntilReady(*daemon);
  return daemon;
}

void PlayRound(Forwarder& forwarder, const PacketCase& packet_case,
               const PacketWorkload& workload) {
  if (packet_case.pattern == Pattern::kPaced) RaisePriority();
  PlayPingPong(forwarder.streams, kWarmUpPackets);
  for (const auto& stream : forwarder.streams) stream->TakeRoundTripsNs();
  const uint64_t sent_before = Sum(forwarder.streams).sent;
  const ProcessUsage before = ReadUsage(forwarder.pid, forwarder.io_threads);
  if (packet_case.pattern == Pattern::kPingPong) {
    PlayPingPong(forwarder.streams, workload.ping_pongs / packet_case.streams);
  } else {
    PlayPaced(forwarder.streams, workload.periods, kPeriod);
  }
  const ProcessUsage after = ReadUsage(forwarder.pid, forwarder.io_threads);
  DropPriority();

  const auto packets = static_cast<double>(Sum(forwarder.streams).sent - sent_before);
  const ThreadUsage io = after.chosen - before.chosen;
  forwarder.cpu_us.push_back(io.cpu_ns / packets / 1000);
  forwarder.packets += packets;
  forwarder.io += io;
  forwarder.others += after.others - before.others;
  for (const auto& stream : forwarder.streams) {
    const auto round_trips = stream->TakeRoundTripsNs();
    forwarder.round_trips_ns.insert(forwarder.round_trips_ns.end(), round_trips.begin(),
                                    round_trips.end());
  }
}

std::string Title(const PacketCase& packet_case, const PacketWorkload& workload) {
  if (packet_case.pattern == Pattern::kPingPong) {
    return fmt::format("Packets of {} bytes in ping-pong, all on core {}, {} rounds of {}",
                       packet_case.payload_size, MeasuringCore(), workload.rounds,
                       workload.ping_pongs);
  }
  return fmt::format("Packets of {} bytes, {} streams, one every {} ms, {} rounds of {} periods",
                     packet_case.payload_size, packet_case.streams, kPeriod.count(),
                     workload.rounds, workload.periods);
}

Section Compare(const PacketCase& packet_case, const PacketWorkload& workload,
                const Forwarder& relay, const Forwarder& daemon) {
  std::vector<double> ratios;
  for (size_t i = 0; i < relay.cpu_us.size(); ++i) {
    ratios.push_back(daemon.cpu_us[i] / relay.cpu_us[i]);
  }
  Section section{Title(packet_case, workload), "bare relay", "kvoxd"};
  section.rows.push_back({"CPU a packet", "us", Median(daemon.cpu_us),
                          RatioAtMost(packet_case.cpu_aim), Median(relay.cpu_us), Median(ratios)});
  const auto add = [&](const char* what, const char* unit, std::optional<Aim> aim, auto value_of) {
    section.rows.push_back({what, unit, value_of(daemon), aim, value_of(relay)});
  };
  const auto round_trip = [](double share) {
    return [share](const Forwarder& f) { return Percentile(f.round_trips_ns, share) / 1000; };
  };
  const auto per_packet = [](uint64_t count, const Forwarder& f) {
    return static_cast<double>(count) / f.packets;
  };
  add("round trip, median", "us", {}, round_trip(0.5));
  add("round trip, 99 %", "us", {}, round_trip(0.99));
  add("voluntary switches a packet", "", AtMost(1),
      [&](const Forwarder& f) { return per_packet(f.io.sleeps, f); });
  add("CPU a packet, other threads", "us", {},
      [](const Forwarder& f) { return f.others.cpu_ns / f.packets / 1000; });
  add("voluntary switches, other threads", "", {},
      [&](const Forwarder& f) { return per_packet(f.others.sleeps, f); });
  add("lost packets", "", AtMost(0),
      [](const Forwarder& f) { return static_cast<double>(Sum(f.streams).lost); });
  add("wrong packets", "", AtMost(0),
      [](const Forwarder& f) { return static_cast<double>(Sum(f.streams).wrong); });
  return section;
}

}  // namespace

uint64_t MeasurePackets(const PacketCase& packet_case, const PacketWorkload& workload,
                        Report& report) {
  if (packet_case.pattern == Pattern::kPingPong) BindToCore(MeasuringCore());
  const auto relay = StartRelay(packet_case);
  const auto daemon = StartDaemon(packet_case);
  for (unsigned round = 0; round < workload.rounds; ++round) {
    PlayRound(*relay, packet_case, workload);
    PlayRound(*daemon, packet_case, workload);
  }
  BindToCore(std::nullopt);
  report.Add(Compare(packet_case, workload, *relay, *daemon));
  return Sum(relay->streams).faults() + Sum(daemon->streams).faults();
}

uint64_t MeasureRecorder(const PacketCase& packet_case, const PacketWorkload& workload,
                         Report& report) {
  const auto bare = StartRelay(packet_case);
  const auto recorded = StartRecordedRelay(packet_case);
  for (unsigned round = 0; round < workload.rounds; ++round) {
    PlayRound(*bare, packet_case, workload);
    PlayRound(*recorded, packet_case, workload);
  }
  Section section{Title(packet_case, workload), "bare relay", "recorded"};
  const auto add = [&](const char* what, double share, std::optional<Aim> aim) {
    const double with = Percentile(recorded->round_trips_ns, share) / 1000;
    const double without = Percentile(bare->round_trips_ns, share) / 1000;
    section.rows.push_back({fmt::format("round trip, {}", what), "us", with, {}, without});
    section.rows.push_back(
        {fmt::format("added to each way, {}", what), "us", (with - without) / 2, aim});
  };
  add("median", 0.5, {});
  add("99 %", 0.99, AtMost(60));
  const uint64_t faults = Sum(bare->streams).faults() + Sum(recorded->streams).faults();
  section.rows.push_back({"lost or wrong packets", "", static_cast<double>(faults), AtMost(0)});
  report.Add(section);
  return faults;
}

}  // namespace kvox::bench
