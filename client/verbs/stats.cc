#include <algorithm>
#include <numeric>
#include <optional>

#include "client/verbs/report.h"
#include "client/verbs/words.h"
#include "kvox/common/fixed_text.h"

namespace kvox::client {
namespace {

constexpr int kMostEntries = 261'120;  // that one answer can carry

std::vector<ProcessorId> Wanted(const Context& context) {
  const std::string& word = context.in.Get("PROCESSOR");
  if (!word.empty()) return {LookUpProcessor(context.daemon, word)};
  std::vector<ProcessorId> ids;
  for (const Processor& processor : AskProcessors(context.daemon).items) {
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

Fields FieldsOf(const std::string& name, const IKvox::ProcessorStats& stats) {
  return {{"id", name},
          {"blocks", int64_t{stats.blockCount}},
          {"buffer_entries", int64_t{stats.bufferEntries}},
          {"average_period_ms", static_cast<double>(stats.averagePeriod)},
          {"active_ms", std::vector<double>(stats.measurements.begin(), stats.measurements.end())}};
}

/// How many times each processor keeps from now on, and whether it forgets what was measured.
struct Changes {
  std::optional<int32_t> entries;
  bool reset = false;
};

int Change(const Context& context, const std::vector<ProcessorId>& ids, const Changes& changes) {
  std::vector<Fields> records;
  int worst = kDone;
  for (const ProcessorId& id : ids) {
    IKvox::CommandResult result;
    if (changes.entries) {
      result =
          context.daemon.Call("ProcessorSetStatsMaxBufferEntries",
                              &IKvox::ProcessorSetStatsMaxBufferEntries, id.id, *changes.entries);
    }
    if (changes.reset && result.status == IKvox::CommandStatus::OK) {
      result = context.daemon.Call("ProcessorResetStats", &IKvox::ProcessorResetStats, id.id);
    }
    records.push_back({{"id", id.name}, {"status", static_cast<int64_t>(result.status)}});
    if (result.status == IKvox::CommandStatus::OK) continue;
    worst = kRefused;
    context.out.Message("statistics of " + id.name + ": the daemon answers " +
                        toString(result.status) + "; try again");
  }
  context.out.List({}, "processors", records);
  return worst;
}

int Show(const Context& context, const std::vector<ProcessorId>& ids) {
  std::vector<std::string> lines;
  std::vector<Fields> records;
  int worst = kDone;
  for (const ProcessorId& id : ids) {
    IKvox::CommandResult result;
    IKvox::ProcessorStats stats;
    context.daemon.Run("ProcessorGetStats",
                       [&](IKvox& kvox) { return kvox.ProcessorGetStats(id.id, &stats, &result); });
    if (result.status != IKvox::CommandStatus::OK) {
      worst = kRefused;
      context.out.Message("statistics of " + id.name + ": the daemon answers " +
                          toString(result.status) + "; try again");
      continue;
    }
    lines.push_back(LineOf(id.name, stats));
    records.push_back(FieldsOf(id.name, stats));
  }
  context.out.List(lines, "processors", records);
  return worst;
}

int Stats(const Context& context) {
  const std::string& entries = context.in.Get("--entries");
  Changes changes = {.entries = {}, .reset = context.in.Has("--reset")};
  if (!entries.empty()) changes.entries = Number("--entries", entries, 0, kMostEntries);
  const std::vector<ProcessorId> ids = Wanted(context);
  return changes.entries || changes.reset ? Change(context, ids, changes) : Show(context, ids);
}

}  // namespace

std::vector<Verb> StatsVerbs() {
  return {
      {"",
       "stats",
       "Tell how long processors work on their blocks",
       {ProcessorArgument(Arity::kOptional)},
       {{"--entries", "COUNT", Kind::kNumber, "Keep so many times from now on, 0 to 261120"},
        {"--reset", nullptr, Kind::kText, "Forget what was measured"}},
       "stats pass",
       Stats,
       [] {
         return "Reading takes the times away: the next reading has what was measured since.\n"
                "Times are kept once --entries has said how many.\n";
       }},
  };
}

}  // namespace kvox::client
