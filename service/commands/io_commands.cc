// Commands that start and stop audio I/O, and those that reach one processor directly: a client's
// audio and the processing statistics. The latter report only a status.

#include "kvox/common/command_tables.h"
#include "kvox/common/log.h"
#include "service/kvox_service.h"

namespace kvox {

KvoxService::Status KvoxService::StartIo(int32_t tapout, CommandResult* result) {
  return RunChange(result, [&](Report& report) { io_.Switch(true, tapout, report); });
}

KvoxService::Status KvoxService::StopIo(int32_t tapout, CommandResult* result) {
  return RunChange(result, [&](Report& report) { io_.Switch(false, tapout, report); });
}

/// Any failure of `operation` is an error.
template <typename Operation>
KvoxService::Status KvoxService::OnProcessor(int32_t id, CommandResult* result,
                                             Operation operation) {
  const ProcessorPtr processor = inventory_.FindProcessor(static_cast<FourCc>(id));
  if (!processor) {
    result->status = CommandStatus::INVALID_PROCESSOR;
  } else {
    result->status = operation(*processor) ? CommandStatus::OK : CommandStatus::ERROR;
  }
  return Status::ok();
}

KvoxService::Status KvoxService::SendAudio(int32_t id, const IKvox::AudioPacket& packet,
                                           CommandResult* result) {
  return OnProcessor(id, result,
                     [&](KvoxProcessor& processor) { return processor.SendAudio(packet) == 0; });
}

// The status of a fresh result stays, also when the client's death could not be linked.
KvoxService::Status KvoxService::RegisterReceiveAudioCallback(
    int32_t id, const std::shared_ptr<IKvox::IReceiveAudioCallback>& callback,
    CommandResult* result) {
  return OnProcessor(id, result, [&](KvoxProcessor& processor) {
    const flight::CallerScope caller(CallingProcess());
    processor.RegisterReceiveAudioCallback(callback);
    flight_.Record({.kind = flight::EventKind::kClient,
                    .subject = processor.id_text(),
                    .text = callback ? "receives the audio" : "no longer receives the audio"});
    return true;
  });
}

KvoxService::Status KvoxService::ProcessorSetStatsMaxBufferEntries(int32_t id, int32_t entries,
                                                                   CommandResult* result) {
  MutexLock lock(stats_limit_mutex_);
  uint64_t others = 0;
  for (const ProcessorPtr& processor : inventory_.Processors()) {
    if (processor->id() != static_cast<FourCc>(id)) others += processor->stats().buffer_size();
  }
  return OnProcessor(id, result, [&](KvoxProcessor& processor) {
    const auto wanted = static_cast<uint32_t>(entries);
    if (entries > 0 && others + wanted > kMaxStatsEntriesOfAll) {
      LogError(
          "%s: no room for %d statistics entries, the other processors have %llu of %llu; "
          "set theirs to less",
          processor.id_text(), entries, static_cast<unsigned long long>(others),
          static_cast<unsigned long long>(kMaxStatsEntriesOfAll));
      return false;
    }
    return wanted <= kMaxStatsEntries && processor.stats().SetBufferSize(wanted);
  });
}

KvoxService::Status KvoxService::ProcessorGetStats(int32_t id, IKvox::ProcessorStats* stats,
                                                   CommandResult* result) {
  return OnProcessor(id, result, [&](KvoxProcessor& processor) {
    float average_period = 0;
    std::vector<float> measurements;
    if (stats == nullptr || !processor.stats().GetMeasurements(average_period, measurements)) {
      return false;
    }
    stats->blockCount = static_cast<int32_t>(processor.stats().blocks());
    stats->bufferEntries = static_cast<int32_t>(processor.stats().buffer_size());
    stats->averagePeriod = average_period;
    stats->measurements = std::move(measurements);
    return true;
  });
}

KvoxService::Status KvoxService::ProcessorResetStats(int32_t id, CommandResult* result) {
  return OnProcessor(id, result,
                     [](KvoxProcessor& processor) { return processor.stats().Reset(); });
}

}  // namespace kvox
