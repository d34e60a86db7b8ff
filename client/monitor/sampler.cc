#include "client/monitor/sampler.h"

#include <iterator>

#include "client/model/snapshot.h"

namespace kvox::client {
namespace {

// For one second of the shortest blocks there are.
constexpr int32_t kKeptTimes = 2048;

/// Puts what was told behind `items`.
template <typename T>
void Take(Told<T> told, std::vector<T>& items, int& unread) {
  unread += told.unread;
  std::move(told.items.begin(), told.items.end(), std::back_inserter(items));
}

void Keep(Daemon& daemon, const std::string& processor, int32_t entries) {
  daemon.Call("ProcessorSetStatsMaxBufferEntries", &IKvox::ProcessorSetStatsMaxBufferEntries,
              CodeOf(processor), entries);
}

}  // namespace

Sample Survey::Read(Daemon& daemon) {
  Sample sample;
  Take(AskProcessors(daemon), sample.processors, sample.unread);
  Take(AskBuffers(daemon, Direction::kTapOut), sample.buffers, sample.unread);
  Take(AskBuffers(daemon, Direction::kInject), sample.buffers, sample.unread);
  if (wanted_.taps) {
    for (const int core : kGraphCores) {
      auto told = AskTaps(daemon, core);
      if (!CoreAnswered(told.lines)) sample.silent_cores.push_back(core);
      Take(std::move(told), sample.taps, sample.unread);
    }
  }
  if (wanted_.measurements) Measure(daemon, sample);
  return sample;
}

void Survey::Measure(Daemon& daemon, Sample& sample) {
  for (const Processor& processor : sample.processors) {
    IKvox::CommandResult result;
    IKvox::ProcessorStats stats;
    daemon.Run("ProcessorGetStats", [&](IKvox& kvox) {
      return kvox.ProcessorGetStats(CodeOf(processor.id), &stats, &result);
    });
    if (result.status != IKvox::CommandStatus::OK) continue;  // it has gone, or is at work
    if (stats.bufferEntries == 0) {
      Keep(daemon, processor.id, kKeptTimes);
      keeping_.insert(processor.id);
    } else if (stats.bufferEntries != kKeptTimes) {
      keeping_.erase(processor.id);  // somebody else has decided since
    }
    sample.measurements[processor.id] = {.blocks = stats.blockCount,
                                         .average_period_ms = double{stats.averagePeriod},
                                         .active_ms = std::move(stats.measurements)};
  }
  std::erase_if(keeping_, [&](const std::string& id) {
    return FindProcessor(sample.processors, id) == nullptr;
  });
}

void Survey::GiveBack(Daemon& daemon) {
  for (const std::string& processor : keeping_) Keep(daemon, processor, 0);
  keeping_.clear();
}

}  // namespace kvox::client
