// Commands that list, make, delete, describe and switch processors.

#include <functional>
#include <utility>

#include "kvox/common/command_tables.h"
#include "kvox/common/fixed_text.h"
#include "kvox/common/four_cc.h"
#include "kvox/common/log.h"
#include "processors/audio_relay_processor.h"
#include "processors/passthru_processor.h"
#include "processors/phone_booth_processor.h"
#include "service/kvox_service.h"

namespace kvox {
namespace {

struct ProcessorKind {
  FourCc type;
  std::shared_ptr<KvoxProcessor> (*make)(FourCc id, RelayOwner& owner);
};

template <typename Kind>
std::shared_ptr<KvoxProcessor> Make(FourCc id, RelayOwner&) {
  return std::make_shared<Kind>(id, Kind::kType);
}

template <>
std::shared_ptr<KvoxProcessor> Make<AudioRelayProcessor>(FourCc id, RelayOwner& owner) {
  return AudioRelayProcessor::Create(id, owner);
}

constexpr ProcessorKind kKinds[] = {
    {PassthruProcessor::kType, Make<PassthruProcessor>},
    {AudioRelayProcessor::kType, Make<AudioRelayProcessor>},
    {PhoneBoothProcessor::kType, Make<PhoneBoothProcessor>},
};

/// Null for a type there is not.
std::shared_ptr<KvoxProcessor> MakeProcessor(FourCc id, FourCc type, RelayOwner& owner) {
  for (const ProcessorKind& kind : kKinds) {
    if (kind.type == type) return kind.make(id, owner);
  }
  return nullptr;
}

std::string EndpointName(const std::shared_ptr<AudioEndpoint>& endpoint) {
  return endpoint ? endpoint->name() : kNoneInTable;
}

constexpr char kNotFound[] = "Kvox processor not found";

/// Room for one more connection record. Records outlive their processors on purpose; those without
/// one go when there are as many as there may be processors.
template <typename Connections, typename Processors>
void MakeRoom(Connections& connections, const Processors& processors) {
  if (connections.size() < kMaxProcessors) return;
  const size_t forgotten = std::erase_if(
      connections, [&](const auto& entry) { return !processors.contains(entry.first); });
  LogWarning("Forgot the connections of %zu deleted processors: %zu are remembered at most",
             forgotten, kMaxProcessors);
}

}  // namespace

KvoxService::Status KvoxService::ListSupportedProcessors(CommandResult* result) {
  std::string text = "Supported Kvox processors: ";
  for (const ProcessorKind& kind : kKinds) text += ToString(kind.type) + " ";
  print_command_status("ListSupportedProcessors", text, result);
  return Status::ok();
}

KvoxService::Status KvoxService::ListProcessors(CommandResult* result) {
  std::string text = kProcessorTableTitle;
  const auto processors = Processors();
  text += processors.empty() ? kNoProcessorsInTable : kProcessorTableHeader;
  for (const auto& processor : processors) {
    text += FormatText<128>(kProcessorTableRow, processor->id_text(), processor->type_text(),
                            EndpointName(processor->input()).c_str(),
                            EndpointName(processor->output()).c_str(),
                            processor->IsEnabled() ? 1u : 0u);
  }
  print_command_status("ListProcessors", text, result);
  return Status::ok();
}

KvoxService::Status KvoxService::NewProcessor(int32_t id, CommandResult* result) {
  return NewProcessorWithType(id, id, result);
}

KvoxService::Status KvoxService::NewProcessorWithType(int32_t id_number, int32_t type_number,
                                                      CommandResult* result) {
  const auto id = static_cast<FourCc>(id_number);
  const auto type = static_cast<FourCc>(type_number);
  const std::string id_text = ToString(id);
  BeginCommand(FormatText<64>("Creating new processor '%s' of type '%s'", id_text.c_str(),
                              ToString(type).c_str()),
               result);
  std::string text;
  std::shared_ptr<KvoxProcessor> existing;  // let go of when every lock is released
  const std::shared_ptr<KvoxProcessor> created = MakeProcessor(id, type, *this);
  MutexLock wiring(wiring_mutex_);
  existing = TakeProcessor(id);
  if (existing) {
    text += "Deleting existing processor '" + id_text + "'\n";
    existing->Disconnect();
  }
  if (!created) {
    result->status = CommandStatus::INVALID_PROCESSOR;
  } else {
    MutexLock lock(mutex_);
    if (processors_.size() < kMaxProcessors) {
      MakeRoom(connections_, processors_);
      processors_.emplace(id, created);
    } else {
      text += FormatText<128>(
          "There are %zu Kvox processors already, which is the most; delete one with "
          "DeleteProcessor",
          kMaxProcessors);
      result->status = CommandStatus::ERROR;
    }
  }
  print_command_status("NewProcessorWithType", text, result);
  return Status::ok();
}

KvoxService::Status KvoxService::DeleteProcessor(int32_t id_number, CommandResult* result) {
  const auto id = static_cast<FourCc>(id_number);
  const std::string id_text = ToString(id);
  BeginCommand(FormatText<64>("Deleting processor '%s'", id_text.c_str()), result);
  std::string text;
  std::shared_ptr<KvoxProcessor> processor;  // let go of when every lock is released
  MutexLock wiring(wiring_mutex_);
  processor = TakeProcessor(id);
  if (processor) {
    processor->Disconnect();
  } else {
    text = "Kvox processor '" + id_text + "' already deleted";
  }
  print_command_status("DeleteProcessor", text, result);
  return Status::ok();
}

/// Out of the table; the caller unties and drops it.
std::shared_ptr<KvoxProcessor> KvoxService::TakeProcessor(FourCc id) {
  to_enable_again_.erase(id);
  MutexLock lock(mutex_);
  const auto found = processors_.find(id);
  if (found == processors_.end()) return nullptr;
  auto processor = std::move(found->second);
  processors_.erase(found);
  return processor;
}

KvoxService::Status KvoxService::ProcessorInfo(int32_t id, CommandResult* result) {
  const auto code = static_cast<FourCc>(id);
  BeginCommand(FormatText<64>("Processor '%s' info\n", ToString(code).c_str()), result);
  std::string text;
  if (const auto processor = FindProcessor(code)) {
    std::vector<std::string> lines;
    processor->Info(lines);
    for (const std::string& line : lines) text += line + "\n";
  } else {
    result->status = CommandStatus::INVALID_PROCESSOR;
  }
  print_command_status("ProcessorInfo", text, result);
  return Status::ok();
}

KvoxService::Status KvoxService::ProcessorEnable(int32_t id_number, bool enable,
                                                 CommandResult* result) {
  const auto id = static_cast<FourCc>(id_number);
  BeginCommand(
      FormatText<64>("%s processor '%s'", enable ? "Enable" : "Disable", ToString(id).c_str()),
      result);
  std::string text;
  MutexLock wiring(wiring_mutex_);
  if (const auto processor = FindProcessor(id)) {
    to_enable_again_.erase(id);
    const bool failed = processor->Enable(enable) != 0;
    result->status = failed ? CommandStatus::ERROR : CommandStatus::OK;
    MutexLock lock(mutex_);
    updateWakeLock(result);
  } else {
    text = kNotFound;
    result->status = CommandStatus::INVALID_PROCESSOR;
  }
  print_command_status("ProcessorEnable", text, result);
  return Status::ok();
}

KvoxService::Status KvoxService::ProcessorIsEnabled(int32_t id_number, CommandResult* result) {
  const auto id = static_cast<FourCc>(id_number);
  const std::string request =
      FormatText<64>("Get processor '%s' enabled state", ToString(id).c_str());
  BeginCommand(request, result);
  std::string text;
  if (const auto processor = FindProcessor(id)) {
    const bool enabled = processor->IsEnabled();
    text = request + (enabled ? ": 1" : ": 0");
    result->value = enabled ? 1.0f : 0.0f;
  } else {
    text = kNotFound;
    result->status = CommandStatus::INVALID_PROCESSOR;
    result->value = 0.0f;
  }
  print_command_status("ProcessorIsEnabled", text, result);
  return Status::ok();
}

}  // namespace kvox
