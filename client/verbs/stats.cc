#include <algorithm>
#include <numeric>
#include <optional>

#include "client/verbs/shared.h"
#include "kvox/common/fixed_text.h"

namespace kvox::client {
namespace {

using CommandResult = IKvox::CommandResult;

constexpr int kMostEntries = 261'120;  // that one reply can carry

/// The processor that was named, or all.
std::vector<ProcessorId> Wanted(const Context& context) {
  if (context.in.Has("PROCESSOR")) return {ProcessorOf(context)};
  std::vector<ProcessorId> ids;
  for (const Processor& processor : QueryProcessors(context.daemon).rows) {
    ids.push_back({CodeOf(processor.id), processor.id});
  }
  return ids;
}

std::string LineOf(const std::string& name, const IKvox::ProcessorStats& stats) {
  std::string line = FormatText<128>("%-5s %d blocks, one every %.3f ms", name.c_str(),
                                     stats.blockCount, static_cast<double>(stats.averagePeriod));
  const auto& active = stats.measurements;
  if (active.empty()) return line;
  const auto [least, most] = std::minmax_element(active.begin(), active.end());
  const double mean =
      std::accumulate(active.begin(), active.end(), 0.0) / static_cast<double>(active.size());
  return line + FormatText<128>(", busy min/mean/max %.3f/%.3f/%.3f ms in the last %zu",
                                static_cast<double>(*least), mean, static_cast<double>(*most),
                                active.size());
}

/// Calls `measure(id, lines, records)` for each processor, and prints what it has added. Returns
/// the exit status.
template <typename Measure>
int ForEach(const Context& context, Measure measure) {
  std::vector<std::string> lines;
  Json records = Json::array();
  int worst = kDone;
  for (const ProcessorId& id : Wanted(context)) {
    const CommandResult result = measure(id, lines, records);
    if (result.status == IKvox::CommandStatus::OK) continue;
    CheckNames(context, result);
    worst = kRefused;
    context.out.Message("statistics of " + id.name + ": the daemon answers " +
                        toString(result.status) + "; try again");
  }
  context.out.List(lines, "processors", records);
  return worst;
}

int Change(const Context& context, std::optional<int32_t> entries, bool reset) {
  return ForEach(context, [&](const ProcessorId& id, auto&, Json& records) {
    CommandResult result;
    if (entries) {
      result = context.daemon.Call("ProcessorSetStatsMaxBufferEntries",
                                   &IKvox::ProcessorSetStatsMaxBufferEntries, id.id, *entries);
    }
    if (reset && result.status == IKvox::CommandStatus::OK) {
      result = context.daemon.Call("ProcessorResetStats", &IKvox::ProcessorResetStats, id.id);
    }
    records.push_back({{"id", id.name}, {"status", static_cast<int>(result.status)}});
    return result;
  });
}

int Show(const Context& context) {
  return ForEach(context, [&](const ProcessorId& id, auto& lines, Json& records) {
    CommandResult result;
    IKvox::ProcessorStats stats;
    context.daemon.Run("ProcessorGetStats",
                       [&](IKvox& kvox) { return kvox.ProcessorGetStats(id.id, &stats, &result); });
    if (result.status != IKvox::CommandStatus::OK) return result;
    lines.push_back(LineOf(id.name, stats));
    records.push_back({{"id", id.name},
                       {"blocks", stats.blockCount},
                       {"buffer_entries", stats.bufferEntries},
                       {"average_period_ms", stats.averagePeriod},
                       {"active_ms", stats.measurements}});
    return result;
  });
}

int Stats(const Context& context) {
  const bool resize = context.in.Has("--entries");
  const bool reset = context.in.Has("--reset");
  if (!resize) return reset ? Change(context, std::nullopt, true) : Show(context);
  return Change(context, context.in.Number("--entries", 0, kMostEntries), reset);
}

}  // namespace

std::vector<Verb> StatsVerbs() {
  return {
      {"stats",
       "Show how long processors work on their blocks",
       Stats,
       "stats pass",
       {{"PROCESSOR", Kind::kProcessor, "Four characters such as art0; all when not given",
         Arity::kOptional}},
       {{"--entries", "COUNT", Kind::kNumber, "Keep so many times from now on, 0 to 261120"},
        {"--reset", nullptr, Kind::kText, "Forget what was measured"}},
       [] {
         return "Reading clears the times: the next reading has what was measured since.\n"
                "Times are kept once --entries has said how many.\n";
       }},
  };
}

}  // namespace kvox::client
