// Commands that look at tap points and set them up.

#include <algorithm>
#include <chrono>
#include <utility>

#include "kvox/common/command_tables.h"
#include "kvox/common/fixed_text.h"
#include "kvox/common/log.h"
#include "service/kvox_service.h"

namespace kvox {
namespace {

/// The page number travels in 8 bits; a list that is longer has no end.
constexpr int kMaxTapListPages = 256;

/// For one list; a phone's takes a few milliseconds.
constexpr auto kTapListPatience = std::chrono::seconds(5);

TapArguments Arguments(int32_t core, int32_t tap, int32_t index) {
  return {core, static_cast<FourCc>(tap), index};
}

std::string BufferName(const std::map<int, std::shared_ptr<KvoxBuffer>>& buffers, uint8_t id) {
  const auto found = buffers.find(static_cast<int8_t>(id));
  return found == buffers.end() ? kNoneInTable : found->second->name();
}

}  // namespace

/// A number that a tap point is told, and where the host remembers it.
struct KvoxService::TapSetting {
  uint16_t opcode;
  const char* opcode_name;
  const char* command;
};

int32_t KvoxService::QueryTap(const TapArguments& tap, KvoxTapPointState& state) {
  TapInfoRecord record;
  record.state.tap = tap.Address().tap;
  record.state.index = tap.Address().index;
  record.state.core = tap.Address().core;
  const int32_t status =
      environment_.link.SendKvoxCommand(CMD_TAP_INFO_ID, &record.header, sizeof record);
  if (status != 0) {
    LogError("%s failed, status %d", "CMD_TAP_INFO_ID", status);
    return status;
  }
  state = StateFromReply(record.state);
  return 0;
}

/// Without the service mutex: a long list at a slow co-processor shall not keep other commands.
int32_t KvoxService::getKvoxTapPoints(int core, std::vector<KvoxTapPointState>& taps) {
  const auto deadline = std::chrono::steady_clock::now() + kTapListPatience;
  for (int page = 0; page < kMaxTapListPages; ++page) {
    if (std::chrono::steady_clock::now() > deadline) {
      LogError("CMD_KVOX_TAP_LIST_ID on KVO core %d: gave up at page %d, the co-processor is slow",
               core, page);
      return -1;
    }
    TapListRecord record;
    record.core = static_cast<uint8_t>(core);
    record.page = static_cast<uint8_t>(page);
    const int32_t status =
        environment_.link.SendKvoxCommand(CMD_KVOX_TAP_LIST_ID, &record.header, sizeof record);
    if (status != 0) {
      LogError("CMD_KVOX_TAP_LIST_ID on KVO core %d, status %d", core, status);
      return -1;
    }
    for (const TapListRecord::Entry& entry : record.entries) {
      if (entry.tap == 0) return 0;
      KvoxTapPointState state;
      if (QueryTap({core, entry.tap, entry.index}, state) != 0) return -1;
      taps.push_back(state);
    }
  }
  LogError("CMD_KVOX_TAP_LIST_ID on KVO core %d: no end after %d pages", core, kMaxTapListPages);
  return -1;
}

void KvoxService::sprintTapInfo(const KvoxTapPointState& state, std::string& text) {
  const TapInfoState& info = state.info;
  if (text.empty()) text += kTapTableHeader;
  const std::string format = FormatText<kTapFormatWidth + 1>(
      kTapFormat, static_cast<double>(static_cast<float>(info.sample_rate) / 1000.0f),
      info.channels, DataFormatLetter(Kvox::DataFormat{state.data_format}),
      info.bytes_per_sample * 8u);
  text += FormatText<128>(kTapTableRow, ToString(info.tap).c_str(), info.index, format.c_str(),
                          info.block_length, state.noninterleaved_samples,
                          static_cast<uint32_t>(int32_t{state.jitter_buffer}),
                          BufferName(buffers_.tapouts, info.tapout_buffer).c_str(),
                          BufferName(buffers_.injects, info.inject_buffer).c_str(), info.enabled);
}

KvoxService::Status KvoxService::TapList(int32_t core, CommandResult* result) {
  BeginCommand(FormatText<64>("KVO tap list core:%d", core), result);
  std::string text;
  std::vector<KvoxTapPointState> taps;
  if (getKvoxTapPoints(core, taps) != 0) {
    text = kTapListFailed;
  } else if (taps.empty()) {
    text = kTapListEmpty;
  } else {
    MutexLock lock(mutex_);
    for (const KvoxTapPointState& state : taps) sprintTapInfo(state, text);
  }
  print_command_status("TapList", text, result);
  return Status::ok();
}

KvoxService::Status KvoxService::TapInfo(int32_t core, int32_t tap, int32_t index,
                                         CommandResult* result) {
  const TapArguments arguments = Arguments(core, tap, index);
  BeginCommand(TapInfoRequest(arguments), result);
  std::string text;
  KvoxTapPointState state;
  MutexLock lock(mutex_);
  if (QueryTap(arguments, state) == 0) {
    sprintTapInfo(state, text);
  } else {
    result->status = CommandStatus::ERROR;
  }
  print_command_status("TapInfo", text, result);
  return Status::ok();
}

KvoxService::Status KvoxService::TapEnable(int32_t core, int32_t tap, int32_t index, bool enable,
                                           CommandResult* result) {
  const TapArguments arguments = Arguments(core, tap, index);
  BeginCommand(TapEnableRequest(arguments, enable), result);
  MutexLock lock(mutex_);
  if (SendTapEnable(arguments, enable, result)) {
    EntryFor(arguments, taps_).info.enabled = enable ? 1 : 0;
    EraseIfIdle(arguments, taps_);
  }
  return Status::ok();
}

bool KvoxService::SendTapEnable(const TapArguments& tap, bool enable, CommandResult* result) {
  TapEnableRecord record;
  record.address = tap.Address();
  record.enable = enable ? 1 : 0;
  const int32_t status =
      environment_.link.SendKvoxCommand(CMD_KVOX_TAP_ENABLE_ID, &record.header, sizeof record);
  std::string text;
  if (status != 0) {
    text = FormatText<64>("CMD_KVOX_TAP_ENABLE_ID failed, status %d", status);
    result->status = CommandStatus::ERROR;
  }
  print_command_status("TapEnable", text, result);
  return status == 0;
}

KvoxService::Status KvoxService::TapSetBlockLength(int32_t core, int32_t tap, int32_t index,
                                                   int32_t length, CommandResult* result) {
  const TapArguments arguments = Arguments(core, tap, index);
  const auto frames = static_cast<uint32_t>(length);
  BeginCommand(BlockLengthRequest(arguments, frames), result);
  MutexLock lock(mutex_);
  if (SendBlockLength(arguments, frames, result)) {
    EntryFor(arguments, taps_).info.block_length = frames;
  }
  return Status::ok();
}

bool KvoxService::SendBlockLength(const TapArguments& tap, uint32_t length, CommandResult* result) {
  return SendTapSetting({.opcode = CMD_KVOX_TAP_SET_BLOCK_LEN_ID,
                         .opcode_name = "CMD_KVOX_TAP_SET_BLOCK_LEN_ID",
                         .command = "TapSetBlockLength"},
                        tap, length, result);
}

KvoxService::Status KvoxService::tapSetJitterBuffer(int32_t core, int32_t tap, int32_t index,
                                                    int32_t size, CommandResult* result) {
  const TapArguments arguments = Arguments(core, tap, index);
  BeginCommand(JitterBufferRequest(arguments, static_cast<uint32_t>(size)), result);
  MutexLock lock(mutex_);
  if (SendJitterBuffer(arguments, static_cast<uint32_t>(size), result)) {
    EntryFor(arguments, taps_).jitter_buffer = static_cast<int16_t>(size);
  }
  return Status::ok();
}

bool KvoxService::SendJitterBuffer(const TapArguments& tap, uint32_t size, CommandResult* result) {
  return SendTapSetting({.opcode = CMD_KVOX_TAP_SET_JITTER_BUFFER_ID,
                         .opcode_name = "CMD_KVOX_TAP_SET_JITTER_BUFFER_ID",
                         .command = "tapSetJitterBuffer"},
                        tap, size, result);
}

bool KvoxService::SendTapSetting(const TapSetting& setting, const TapArguments& tap, uint32_t value,
                                 CommandResult* result) {
  TapSettingRecord record;
  record.address = tap.Address();
  record.value = value;
  const int32_t status =
      environment_.link.SendKvoxCommand(setting.opcode, &record.header, sizeof record);
  std::string text;
  if (status != 0) {
    text = FormatText<64>("%s failed, status %d", setting.opcode_name, status);
    result->status = CommandStatus::ERROR;
  }
  print_command_status(setting.command, text, result);
  return status == 0;
}

std::optional<KvoxTapPointState> KvoxService::GetTapPointConnectedToBuffer(
    const KvoxBuffer& buffer) {
  MutexLock lock(mutex_);
  for (const auto& [key, state] : taps_) {
    const uint8_t id = buffer.is_tapout() ? state.info.tapout_buffer : state.info.inject_buffer;
    if (id == buffer.index()) return state;
  }
  return std::nullopt;
}

int32_t KvoxService::SetTapBlockLength(const KvoxBuffer& buffer, uint32_t frames) {
  const auto state = GetTapPointConnectedToBuffer(buffer);
  if (!state) return 0;
  CommandResult result;
  static_cast<void>(TapSetBlockLength(state->info.core, static_cast<int32_t>(state->info.tap),
                                      state->info.index, static_cast<int32_t>(frames), &result));
  return result.status == CommandStatus::OK ? 0 : 1;
}

int32_t KvoxService::SetTapJitterBuffer(const KvoxBuffer& buffer, uint32_t size) {
  const auto state = GetTapPointConnectedToBuffer(buffer);
  if (!state) return 0;
  CommandResult result;
  static_cast<void>(tapSetJitterBuffer(state->info.core, static_cast<int32_t>(state->info.tap),
                                       state->info.index, static_cast<int32_t>(size), &result));
  return result.status == CommandStatus::OK ? 0 : 1;
}

}  // namespace kvox
