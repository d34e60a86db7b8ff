#include "sim/coprocessor/command_handler.h"

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

namespace kvox::sim {
namespace {

/// The status of a reply.
enum class Status : int16_t {
  kOk = 0,
  kNoTap = -2,      // no such tap on that core
  kNoCore = -6,     // no such core
  kNoBuffer = -19,  // no such tap-out or inject device
  kInvalid = -22,   // a value that the tap cannot take
  kNoOpcode = -38,  // no such command
  kBadSize = -90,   // the record has another size than its opcode asks for
};

struct Context {
  CoProcessor& co_processor;
  Journal& journal;

  const Scenario& scenario() const { return co_processor.scenario(); }
};

std::string BufferText(uint8_t buffer) {
  return buffer == kNoBuffer ? "none" : std::to_string(buffer);
}

bool Exists(const std::vector<uint8_t>& devices, uint8_t buffer) {
  return buffer == kNoBuffer || std::ranges::count(devices, buffer) > 0;
}

bool HasCore(const Context& context, uint8_t core) {
  return std::ranges::count(context.scenario().cores, core) > 0;
}

/// Runs a handler with the tap that the record names behind its header, on an aligned copy.
template <typename Record, Status (*handle)(Context&, Tap&, Record&)>
Status ForTap(Context& context, std::span<std::byte> bytes) {
  TapAddress address;
  std::memcpy(&address, &bytes[sizeof(CMD_HDR)], sizeof address);
  if (!HasCore(context, address.core)) return Status::kNoCore;
  Tap* tap = context.co_processor.Find(address);
  if (tap == nullptr) return Status::kNoTap;
  Record record;
  std::memcpy(&record, bytes.data(), sizeof record);
  const Status status = handle(context, *tap, record);
  std::memcpy(bytes.data(), &record, sizeof record);
  return status;
}

Status Enable(Context& context, Tap& tap, TapEnableRecord& record) {
  if (record.enable > 1) return Status::kInvalid;
  tap.enabled = record.enable == 1;
  if (tap.enabled) context.co_processor.Touch(tap);
  context.journal.Log("{}: {}", tap.Name(), tap.enabled ? "enabled" : "disabled");
  return Status::kOk;
}

Status Bind(Context& context, Tap& tap, TapBindRecord& record) {
  if (!Exists(context.scenario().tapouts, record.tapout_buffer) ||
      !Exists(context.scenario().injects, record.inject_buffer)) {
    return Status::kNoBuffer;
  }
  tap.tapout = record.tapout_buffer;
  tap.inject = record.inject_buffer;
  context.co_processor.Touch(tap);
  context.journal.Log("{}: bound to tap-out {}, inject {}", tap.Name(), BufferText(tap.tapout),
                      BufferText(tap.inject));
  return Status::kOk;
}

Status List(Context& context, std::span<std::byte> bytes) {
  TapListRecord record;
  std::memcpy(&record, bytes.data(), sizeof record);
  if (!HasCore(context, record.core)) return Status::kNoCore;
  std::ranges::fill(record.entries, TapListRecord::Entry{});
  size_t skip = record.page * kTapListPageEntries;
  size_t filled = 0;
  for (const TapConfig& tap : context.scenario().taps) {
    if (tap.core != record.core) continue;
    if (skip > 0) {
      --skip;
    } else if (filled < kTapListPageEntries) {
      record.entries[filled++] = {.tap = tap.name, .index = tap.index};
    }
  }
  std::memcpy(bytes.data(), &record, sizeof record);
  return Status::kOk;
}

Status Info(Context&, Tap& tap, TapInfoRecord& record) {
  TapInfoState& state = record.state;
  state.enabled = tap.enabled ? 1 : 0;
  state.sample_rate = tap.config.format.sample_rate;
  state.block_length = tap.block_length;
  state.channels = tap.config.format.channels;
  state.bytes_per_sample = tap.config.format.bytes_per_sample;
  state.tapout_buffer = tap.tapout;
  state.inject_buffer = tap.inject;
  return Status::kOk;
}

Status SetBlockLength(Context& context, Tap& tap, TapSettingRecord& record) {
  if (BlockProblem(tap.config.format, record.value)) return Status::kInvalid;
  tap.block_length = record.value;
  context.journal.Log("{}: block length {}", tap.Name(), tap.block_length);
  return Status::kOk;
}

Status SetJitterBuffer(Context& context, Tap& tap, TapSettingRecord& record) {
  tap.jitter_buffer = record.value;
  context.journal.Log("{}: jitter buffer {}", tap.Name(), tap.jitter_buffer);
  return Status::kOk;
}

struct Row {
  uint16_t opcode;
  const char* name;
  size_t size;
  Status (*handle)(Context&, std::span<std::byte>);
};

#define KVOX_ROW(opcode, Record, handler) \
  { opcode, #opcode, sizeof(Record), ForTap<Record, handler> }
constexpr Row kRows[] = {
    KVOX_ROW(CMD_KVOX_TAP_ENABLE_ID, TapEnableRecord, Enable),
    KVOX_ROW(CMD_KVOX_TAP_BIND_ID, TapBindRecord, Bind),
    {CMD_KVOX_TAP_LIST_ID, "CMD_KVOX_TAP_LIST_ID", sizeof(TapListRecord), List},
    KVOX_ROW(CMD_TAP_INFO_ID, TapInfoRecord, Info),
    KVOX_ROW(CMD_KVOX_TAP_SET_BLOCK_LEN_ID, TapSettingRecord, SetBlockLength),
    KVOX_ROW(CMD_KVOX_TAP_SET_JITTER_BUFFER_ID, TapSettingRecord, SetJitterBuffer),
};
#undef KVOX_ROW

/// Null for unknown opcodes.
const Row* FindRow(uint16_t opcode) {
  const auto* row = std::ranges::find(kRows, opcode, &Row::opcode);
  return row == std::end(kRows) ? nullptr : row;
}

}  // namespace

const char* OpcodeName(uint16_t opcode) {
  const Row* row = FindRow(opcode);
  return row == nullptr ? "unknown" : row->name;
}

CMD_HDR CommandHeader(std::span<const std::byte> record) {
  CMD_HDR header;
  std::memcpy(&header, record.data(), sizeof header);
  return header;
}

void CommandHandler::Handle(std::span<std::byte> bytes, std::optional<int16_t> refusal) {
  CMD_HDR header = CommandHeader(bytes);
  const Row* row = FindRow(header.opcode);
  Status status = row == nullptr ? Status::kNoOpcode : Status::kBadSize;
  if (!refusal && row != nullptr && bytes.size() == row->size) {
    Context context{co_processor_, journal_};
    status = row->handle(context, bytes);
  }
  header.status = refusal.value_or(static_cast<int16_t>(status));
  std::memcpy(bytes.data(), &header, sizeof header);
  ++counts_[{row == nullptr ? uint16_t{0} : header.opcode, header.status}];
  if (header.status != 0) {
    journal_.Log("command {:#x} ({}) refused with status {}", header.opcode,
                 OpcodeName(header.opcode), header.status);
  }
}

}  // namespace kvox::sim
