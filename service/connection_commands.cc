// Commands that tie tap points, buffers and processors together, and show how they are tied.

#include <utility>

#include "kvox/common/command_tables.h"
#include "kvox/common/fixed_text.h"
#include "kvox/common/log.h"
#include "service/kvox_service.h"

namespace kvox {
namespace {

template <typename Endpoint>
std::string NameOr(const std::shared_ptr<Endpoint>& endpoint, const char* none) {
  return endpoint ? endpoint->name() : none;
}

using BufferMap = std::map<int, std::shared_ptr<KvoxBuffer>>;

std::shared_ptr<KvoxBuffer> Find(const BufferMap& buffers, int number) {
  const auto found = buffers.find(number);
  return found == buffers.end() ? nullptr : found->second;
}

std::string getTapNameConnectedToBuffer(const std::shared_ptr<AudioEndpoint>& endpoint,
                                        const std::vector<KvoxTapPointState>& taps) {
  const auto buffer = KvoxBuffer::From(endpoint);
  if (!buffer) return kNotConnected;
  for (const KvoxTapPointState& state : taps) {
    const uint8_t id = buffer->is_tapout() ? state.info.tapout_buffer : state.info.inject_buffer;
    if (id != buffer->index()) continue;
    return TapName(state.info) + (state.info.enabled == 1 ? "" : kGraphDisabled);
  }
  return kNotConnected;
}

std::string GraphLine(const KvoxProcessor& processor, const std::vector<KvoxTapPointState>& taps) {
  const auto input = processor.input();
  const auto output = processor.output();
  return "  " + getTapNameConnectedToBuffer(input, taps) + kGraphArrow +
         NameOr(input, kNotConnected) + kGraphArrow + processor.id_text() +
         (processor.IsEnabled() ? "" : kGraphDisabled) + kGraphArrow +
         NameOr(output, kNotConnected) + kGraphArrow + getTapNameConnectedToBuffer(output, taps);
}

}  // namespace

KvoxService::Status KvoxService::Connect(int32_t processor, int32_t tapout, int32_t inject,
                                         CommandResult* result) {
  MutexLock wiring(wiring_mutex_);
  ConnectProcessor(static_cast<FourCc>(processor), tapout, inject, Recording::kYes, result);
  return Status::ok();
}

void KvoxService::ConnectProcessor(FourCc id, int tapout_number, int inject_number,
                                   Recording recording, CommandResult* result) {
  BeginCommand(FormatText<128>(
                   "Connect Kvox processor: tap-out buffer %d --> processor %s --> inject buffer "
                   "%d\n",
                   tapout_number, ToString(id).c_str(), inject_number),
               result);
  const auto fail = [&](const char* reason, CommandStatus status) {
    result->status = status;
    print_command_status("Connect", reason, result);
  };
  std::shared_ptr<KvoxProcessor> processor;
  std::shared_ptr<KvoxBuffer> tapout;
  std::shared_ptr<KvoxBuffer> inject;
  {
    MutexLock lock(mutex_);
    processor = GetKvoxProcessor(id);
    tapout = Find(buffers_.tapouts, tapout_number);
    inject = Find(buffers_.injects, inject_number);
  }
  if (!processor) return fail("Invalid processor", CommandStatus::INVALID_PROCESSOR);
  if (tapout_number != -1 && !tapout)
    return fail("Invalid tap out buffer", CommandStatus::INVALID_PARAMETER);
  // A processor is fed by one buffer and writes to one: it leaves those it had first.
  const auto feed = processor->feed();
  if (feed && feed != tapout && (tapout || inject_number == -1 || inject)) {
    feed->UnregisterOutput(processor.get());
  }
  if (tapout && tapout->RegisterOutput(processor) != 0)
    return fail("Failed to register with processor", CommandStatus::ERROR);
  if (inject_number != -1 && !inject)
    return fail("Invalid inject buffer", CommandStatus::INVALID_PARAMETER);
  std::string text;
  const auto written = processor->output();
  if (written && written != inject) written->UnregisterInput();
  if (inject) {
    const auto writer = inject->GetInput();
    if (writer && writer != processor) {
      text += FormatText<128>("  %s is already connected to %s. Disconnecting\n",
                              inject->name().c_str(), writer->id_text());
      writer->ClearOutput(inject.get());
    }
    inject->RegisterInput(processor);
  }
  text += FormatText<128>("  Set %s input to %s\n", processor->id_text(),
                          NameOr(tapout, kNotConnected).c_str());
  processor->SetInput(tapout);
  text += FormatText<128>("  Set %s output to %s\n", processor->id_text(),
                          NameOr(inject, kNotConnected).c_str());
  processor->SetOutput(inject);
  if (recording == Recording::kYes) {
    MutexLock lock(mutex_);
    if (tapout_number == -1 && inject_number == -1) {
      connections_.erase(id);
    } else {
      connections_[id] = {.tapout_buffer = tapout_number, .inject_buffer = inject_number};
    }
  }
  print_command_status("Connect", text, result);
}

KvoxService::Status KvoxService::ConnectTap(int32_t core, int32_t tap, int32_t index,
                                            int32_t tapout, int32_t inject, CommandResult* result) {
  const TapArguments arguments = {core, static_cast<FourCc>(tap), index};
  BeginCommand(BindingRequest(arguments, tapout, inject), result);
  Binding binding;
  {
    MutexLock lock(mutex_);
    binding = SendBinding(arguments, tapout, inject, Recording::kYes, result);
  }
  FinishBinding(std::move(binding), result);
  return Status::ok();
}

KvoxService::Binding KvoxService::SendBinding(const TapArguments& tap, int tapout, int inject,
                                              Recording recording, CommandResult* result) {
  Binding binding;
  const auto fail = [&](std::string text) {
    binding.text = std::move(text);
    result->status = CommandStatus::ERROR;
    return binding;
  };
  const auto source = Find(buffers_.tapouts, tapout);
  if (tapout >= 0 && !source) return fail(FormatText<128>("Tap out buffer %d not found", tapout));
  if (inject >= 0 && !buffers_.injects.contains(inject)) {
    return fail(FormatText<128>("Tap out buffer %d not found", inject));
  }
  TapBindRecord record;
  record.address = tap.Address();
  record.tapout_buffer = static_cast<uint8_t>(tapout);
  record.inject_buffer = static_cast<uint8_t>(inject);
  const int32_t status =
      environment_.link.SendKvoxCommand(CMD_KVOX_TAP_BIND_ID, &record.header, sizeof record);
  if (status != 0) {
    return fail(FormatText<128>("CMD_KVOX_TAP_BIND_ID failed, status %d", status));
  }
  if (recording == Recording::kYes) {
    KvoxTapPointState& entry = EntryFor(tap, taps_);
    entry.info.tapout_buffer = static_cast<uint8_t>(tapout);
    entry.info.inject_buffer = static_cast<uint8_t>(inject);
    EraseIfIdle(tap, taps_);
  }
  if (tapout < 0) return binding;
  KvoxTapPointState state;
  if (QueryTap(tap, state) != 0) return fail("Error setting audio format from tap point");
  binding.tapout = source;
  binding.format.sample_rate = state.info.sample_rate;
  binding.format.channels = state.info.channels;
  binding.format.bytes_per_sample = state.info.bytes_per_sample;
  return binding;
}

void KvoxService::FinishBinding(Binding binding, CommandResult* result) {
  if (binding.tapout && binding.tapout->SetRxFormat(binding.format) != 0) {
    binding.text = "Error setting audio format from tap point";
    result->status = CommandStatus::ERROR;
  }
  print_command_status("ConnectTap", binding.text, result);
}

KvoxService::Status KvoxService::ListTapOutBuffers(CommandResult* result) {
  BeginCommand(kTapOutTableTitle, result);
  BufferMap buffers;
  {
    MutexLock lock(mutex_);
    buffers = buffers_.tapouts;
  }
  std::string text = buffers.empty() ? kNoTapOuts : kTapOutTableHeader;
  for (const auto& [number, buffer] : buffers) {
    text += FormatText<256>(kTapOutTableRow, number, buffer->name().c_str(),
                            buffer->GetInputAsString().c_str(),
                            buffer->GetOutputsAsString().c_str(), buffer->IsEnabled() ? 1u : 0u);
  }
  print_command_status("ListTapOutBuffers", text, result);
  return Status::ok();
}

// Its header, its ids and its empty text differ from those of the other list; clients see them so.
KvoxService::Status KvoxService::ListInjectBuffers(CommandResult* result) {
  BeginCommand(kInjectTableTitle, result);
  BufferMap buffers;
  {
    MutexLock lock(mutex_);
    buffers = buffers_.injects;
  }
  std::string text = buffers.empty() ? kNoInjects : kInjectTableHeader;
  for (const auto& [number, buffer] : buffers) {
    text += FormatText<256>(kInjectTableRow, static_cast<unsigned>(number), buffer->name().c_str(),
                            buffer->GetInputAsString().c_str(),
                            buffer->GetOutputsAsString().c_str(), buffer->IsEnabled() ? 1u : 0u);
  }
  print_command_status("ListInjectBuffers", text, result);
  return Status::ok();
}

KvoxService::Status KvoxService::ShowGraph(CommandResult* result) {
  BeginCommand(kGraphTitle, result);
  std::string text;
  std::vector<KvoxTapPointState> taps;
  for (const int core : kGraphCores) {
    if (getKvoxTapPoints(core, taps) == 0) continue;
    result->status = CommandStatus::ERROR;
    print_command_status(
        "ShowGraph", "Error retrieving list of tap points from Kvo core " + std::to_string(core),
        result);
    return Status::ok();
  }
  for (const auto& processor : Processors()) {
    if (!text.empty()) text += "\n";
    text += GraphLine(*processor, taps);
  }
  if (text.empty()) text = kGraphEmpty;
  print_command_status("ShowGraph", text, result);
  return Status::ok();
}

}  // namespace kvox
