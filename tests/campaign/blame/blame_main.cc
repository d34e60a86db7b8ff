// kvox_blame: injects faults of every kind and compares whom `kvoxctl why` blames with who did it.

#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <array>
#include <chrono>
#include <map>
#include <set>
#include <thread>
#include <vector>

#include "kvox/common/kvox_utils.h"
#include "libkvox/flight/incidents.h"
#include "tests/campaign/blame/world.h"

namespace kvox::campaign {
namespace {

using client::Cause;
using client::Incident;
using std::chrono::milliseconds;

struct Kind {
  const char* name;
  Cause right;
  const char* stream;
  milliseconds lasts;
  /// False when it cannot be injected here. `n` counts the faults of the kind.
  bool (*inject)(BlameWorld& world, int n);
};

bool Fault(const BlameWorld& world, const std::string& words) {
  world.sim().Fault(words);
  return true;
}

/// Those that destroy a packet; others are harmless.
bool Junk(const BlameWorld& world, int n) {
  constexpr const char* kFaults[] = {"packet-junk bytes=101", "packet-cut", "packet-magic",
                                     "packet-version", "packet-size"};
  return Fault(world, std::string(kFaults[static_cast<size_t>(n) % std::size(kFaults)]) +
                          " tap=genp.0 count=1");
}

const Kind kKinds[] = {
    {"sent late", Cause::kCoprocessorLate, kPassStream, milliseconds(100),
     [](BlameWorld& w, int) { return Fault(w, "packet-late delay=0.012 tap=genp.0 count=1"); }},
    {"sent early", Cause::kCoprocessorEarly, kPassStream, milliseconds(100),
     [](BlameWorld& w, int) { return Fault(w, "packet-early tap=genp.0 count=1"); }},
    {"dropped", Cause::kCoprocessorSkipped, kPassStream, milliseconds(100),
     [](BlameWorld& w, int) { return Fault(w, "packet-drop tap=genp.0 count=1"); }},
    {"duplicated", Cause::kCoprocessorRepeated, kPassStream, milliseconds(100),
     [](BlameWorld& w, int) { return Fault(w, "packet-duplicate tap=genp.0 count=1"); }},
    {"slow processor", Cause::kProcessorSlow, kBurnStream, milliseconds(100),
     [](BlameWorld& w, int) { return w.BurnOnce(), true; }},
    {"slow client", Cause::kClientLate, kRelayStream, milliseconds(100),
     [](BlameWorld& w, int) { return w.BeLateOnce(), true; }},
    {"stalled inject", Cause::kInjectFull, kPassStream, milliseconds(800),
     [](BlameWorld& w, int) { return Fault(w, "inject-stall device=inject0 for=0.7"); }},
    {"no processor", Cause::kNoProcessorTime, kPassStream, milliseconds(100),
     [](BlameWorld& w, int) { return w.Hog(); }},
    {"restart", Cause::kRestart, kPassStream, milliseconds(2500),
     [](BlameWorld& w, int) { return Fault(w, "restart gap=0.2"); }},
    {"rewiring", Cause::kRewired, kPassStream, milliseconds(100),
     [](BlameWorld& w, int) { return w.Rewire(), true; }},
    {"junk", Cause::kJunk, kPassStream, milliseconds(100),
     [](BlameWorld& w, int n) { return Junk(w, n); }},
};

/// The next samples of the threads' scheduling.
constexpr milliseconds kEvidence(300);

uint64_t WeightOf(const Incident& incident) {
  return incident.lost + incident.late + incident.early + incident.repeated +
         incident.interruptions;
}

/// Whom the log blames for what happened to the stream since `from_ns`: the cause of most of it;
/// none when nothing was noticed.
std::optional<Cause> BlamedSince(const flight::FlightView& log, const std::string& name,
                                 uint64_t from_ns) {
  const auto stream = std::ranges::find(log.streams, name, &flight::StreamView::name);
  if (stream == log.streams.end()) return std::nullopt;
  const auto incidents = client::FindIncidents(log, *stream, from_ns);
  const auto worst = std::ranges::max_element(incidents, {}, WeightOf);
  return worst == incidents.end() ? std::nullopt : std::optional(worst->blame.cause);
}

/// Every number from the first to the last packet of each span is dispatched or lost.
bool BooksBalance(const flight::FlightView& log) {
  bool balance = true;
  for (const auto& stream : log.streams) {
    uint64_t numbered = 0;
    uint32_t last = 0;
    for (const auto& packet : stream.packets) {
      if ((packet.flags & flight::kRepeated) != 0) continue;
      numbered += (packet.flags & flight::kFirst) != 0 ? 1 : packet.number - last;
      last = packet.number;
    }
    const uint64_t accounted = stream.dispatched + stream.Lost();
    if (numbered == accounted && stream.torn == 0) continue;
    fmt::print("{}: {} numbers, but {} dispatched and {} lost\n", stream.name, numbered,
               stream.dispatched, stream.Lost());
    balance = false;
  }
  return balance;
}

using Matrix = std::map<std::string, std::map<std::string, int>>;

void Print(const Matrix& matrix) {
  for (const auto& [kind, row] : matrix) {
    fmt::print("{:<16}", kind);
    for (const auto& [cause, count] : row) fmt::print(" {}: {}", cause, count);
    fmt::print("\n");
  }
}

struct Score {
  int right = 0;
  int wrong = 0;
  bool met = true;  // each kind by itself
  bool balance = true;
};

/// A world for each kind: its log must hold all its packets.
void RunKind(const Kind& kind, int count, Matrix& matrix, Score& score) {
  BlameWorld world;
  std::this_thread::sleep_for(milliseconds(1000));
  auto& row = matrix[kind.name];
  int right_of_kind = 0;
  for (int n = 0; n < count; ++n) {
    const uint64_t from_ns = GetTimestampNs();
    if (!kind.inject(world, n)) {
      ++row["not possible here"];
      return;
    }
    std::this_thread::sleep_for(kind.lasts + kEvidence);
    const auto cause = BlamedSince(world.ReadLog(), kind.stream, from_ns);
    ++row[cause ? client::CauseWord(*cause) : "nothing"];
    score.right += cause == kind.right;
    right_of_kind += cause == kind.right;
    score.wrong += cause && cause != kind.right && cause != Cause::kUndecided;
  }
  score.met = score.met && right_of_kind * 100 >= count * 80;
  world.EndStreams();
  std::this_thread::sleep_for(milliseconds(200));
  score.balance = BooksBalance(world.ReadLog()) && score.balance;
}

int Run(int count, const std::string& only) {
  Matrix matrix;
  Score score;
  for (const Kind& kind : kKinds) {
    if (!only.empty() && only != kind.name) continue;
    RunKind(kind, count, matrix, score);
    Print({{kind.name, matrix[kind.name]}});
    std::fflush(stdout);
  }
  int all = 0;
  for (const auto& [kind, row] : matrix) {
    for (const auto& [cause, number] : row) all += cause == "not possible here" ? 0 : number;
  }
  if (all == 0) throw std::runtime_error("no fault of that kind can be injected here");
  fmt::print("{} of {} blamed right, {} wrong; the books {}\n", score.right, all, score.wrong,
             score.balance ? "balance" : "DO NOT BALANCE");
  const bool met = score.met && score.right * 100 >= all * 95 && score.wrong * 100 <= all * 2;
  return score.balance && met ? 0 : 1;
}

}  // namespace
}  // namespace kvox::campaign

int main(int argc, char** argv) {
  try {
    int count = 25;
    std::string only;
    std::string ignored;
    CLI::App app{"Compares whom kvoxctl why blames with who did it.", "kvox_blame"};
    app.add_option("--count", count, "Faults of each kind (25)")
        ->check(CLI::Range(1, 40));  // the log holds all packets of so many
    app.add_option("--only", only, "One kind");
    app.add_option("--logs", ignored, "As of kvox_faults; not used");
    app.add_option("--preset", ignored, "As of kvox_faults; not used");
    CLI11_PARSE(app, argc, argv);
    return kvox::campaign::Run(count, only);
  } catch (const std::exception& error) {
    fprintf(stderr, "kvox_blame: %s\n", error.what());
    return 1;
  }
}
