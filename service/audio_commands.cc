// Commands that reach one processor directly: a client's audio, and the processing statistics. They
// answer by the status alone.

#include "kvox/common/log.h"
#include "service/kvox_service.h"

namespace kvox {
namespace {

/// Runs `operation` on a processor that may be absent; any failure of it is an error.
template <typename Operation>
KvoxService::Status Apply(const std::shared_ptr<KvoxProcessor>& processor, Operation operation,
                          CommandResult* result) {
  if (!processor) {
    result->status = CommandStatus::INVALID_PROCESSOR;
  } else {
    result->status = operation(*processor) == 0 ? CommandStatus::OK : CommandStatus::ERROR;
  }
  return KvoxService::Status::ok();
}

}  // namespace

KvoxService::Status KvoxService::SendAudio(int32_t id, const IKvox::AudioPacket& packet,
                                           CommandResult* result) {
  return Apply(
      FindProcessor(static_cast<FourCc>(id)),
      [&](KvoxProcessor& processor) { return processor.SendAudio(packet); }, result);
}

// The status of a fresh result stays, also when the client's death could not be linked.
KvoxService::Status KvoxService::RegisterReceiveAudioCallback(
    int32_t id, const std::shared_ptr<IKvox::IReceiveAudioCallback>& callback,
    CommandResult* result) {
  if (const auto processor = FindProcessor(static_cast<FourCc>(id))) {
    processor->RegisterReceiveAudioCallback(callback);
  } else {
    result->status = CommandStatus::INVALID_PROCESSOR;
  }
  return Status::ok();
}

KvoxService::Status KvoxService::ProcessorSetStatsMaxBufferEntries(int32_t id, int32_t entries,
                                                                   CommandResult* result) {
  uint64_t others = 0;
  for (const auto& processor : Processors()) {
    if (processor->id() != static_cast<FourCc>(id)) others += processor->stats_entries();
  }
  return Apply(
      FindProcessor(static_cast<FourCc>(id)),
      [&](KvoxProcessor& processor) {
        if (entries > 0 && others + static_cast<uint32_t>(entries) > kMaxStatsEntriesOfAll) {
          LogError(
              "%s: no room for %d statistics entries, the other processors have %llu of %llu; "
              "set theirs to less",
              processor.id_text(), entries, static_cast<unsigned long long>(others),
              static_cast<unsigned long long>(kMaxStatsEntriesOfAll));
          return -1;
        }
        return processor.SetStatsMaxBufferSize(static_cast<uint32_t>(entries));
      },
      result);
}

KvoxService::Status KvoxService::ProcessorGetStats(int32_t id, IKvox::ProcessorStats* stats,
                                                   CommandResult* result) {
  return Apply(
      FindProcessor(static_cast<FourCc>(id)),
      [&](KvoxProcessor& processor) { return processor.GetStats(stats); }, result);
}

KvoxService::Status KvoxService::ProcessorResetStats(int32_t id, CommandResult* result) {
  return Apply(
      FindProcessor(static_cast<FourCc>(id)),
      [](KvoxProcessor& processor) { return processor.ResetStats(); }, result);
}

}  // namespace kvox
