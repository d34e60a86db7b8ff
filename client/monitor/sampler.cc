#include "client/monitor/sampler.h"

#include <utility>

#include "client/flight/log_file.h"
#include "libkvox/model/snapshot.h"

namespace kvox::client {
namespace {

// One second of the shortest blocks.
constexpr int32_t kEntries = 2048;

void Resize(Daemon& daemon, const std::string& processor, int32_t entries) {
  daemon.Call("ProcessorSetStatsMaxBufferEntries", &IKvox::ProcessorSetStatsMaxBufferEntries,
              CodeOf(processor), entries);
}

}  // namespace

Sample Sampler::Read(Daemon& daemon) {
  Sample sample;
  const auto take = [&sample](auto reply) {
    sample.unparsed += reply.unparsed;
    return std::move(reply.rows);
  };
  sample.processors = take(QueryProcessors(daemon));
  sample.buffers = take(QueryBuffers(daemon));
  MissingCores missing;
  if (wanted_.taps) sample.taps = take(ListTaps(daemon, kAllCores, missing));
  if (reports_health_) reports_health_ = AddHealth(daemon, sample.buffers, missing);
  sample.silent_cores = std::move(missing.silent);
  if (wanted_.measurements) Measure(daemon, sample);
  std::string error;
  if (const auto path = FindFlight()) {
    sample.flight = flight::ReadFlight(*path, {.packets = false, .events = false}, &error);
    if (sample.flight && !sample.flight->live) sample.flight.reset();  // of an earlier daemon
  }
  return sample;
}

void Sampler::Measure(Daemon& daemon, Sample& sample) {
  for (const Processor& processor : sample.processors) {
    auto [result, stats] = QueryStats(daemon, CodeOf(processor.id));
    if (result.status != IKvox::CommandStatus::OK) continue;  // it is gone, or busy
    if (stats.bufferEntries == 0) {
      Resize(daemon, processor.id, kEntries);
      resized_.insert(processor.id);
    } else if (stats.bufferEntries != kEntries) {
      resized_.erase(processor.id);  // another client has resized it since
    }
    sample.measurements[processor.id] = {.blocks = stats.blockCount,
                                         .average_period_ms = double{stats.averagePeriod},
                                         .active_ms = std::move(stats.measurements)};
  }
  std::erase_if(resized_, [&](const std::string& id) {
    return FindProcessor(sample.processors, id) == nullptr;
  });
}

void Sampler::Restore(Daemon& daemon) {
  for (const std::string& processor : resized_) Resize(daemon, processor, 0);
  resized_.clear();
}

}  // namespace kvox::client
