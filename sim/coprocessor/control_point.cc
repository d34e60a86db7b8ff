#include "sim/coprocessor/control_point.h"

#include <algorithm>
#include <cstring>

namespace kvox::sim {
namespace {

std::string BufferText(uint8_t buffer) {
  return buffer == kNoBuffer ? "none" : std::to_string(buffer);
}

bool Exists(const std::vector<uint8_t>& devices, uint8_t buffer) {
  return buffer == kNoBuffer || std::ranges::count(devices, buffer) > 0;
}

}  // namespace

struct ControlPoint::Row {
  uint16_t opcode;
  const char* name;
  size_t size;
  ControlStatus (ControlPoint::*handle)(std::span<std::byte>);
};

/// Runs a handler on a copy, as records lie askew in the byte stream, and with the tap that the
/// record names behind its header.
template <typename Record, ControlPoint::Handler<Record> handler>
ControlStatus ControlPoint::Handle(std::span<std::byte> bytes) {
  TapAddress address;
  std::memcpy(&address, &bytes[sizeof(CMD_HDR)], sizeof address);
  if (std::ranges::count(co_processor_.cores(), address.core) == 0) return ControlStatus::kNoCore;
  Tap* tap = co_processor_.Find(address);
  if (tap == nullptr) return ControlStatus::kNoTap;
  Record record;
  std::memcpy(&record, bytes.data(), sizeof record);
  const ControlStatus status = (this->*handler)(*tap, record);
  std::memcpy(bytes.data(), &record, sizeof record);
  return status;
}

#define KVOX_ROW(opcode, Record, handler) \
  { opcode, #opcode, sizeof(Record), &ControlPoint::Handle<Record, &ControlPoint::handler> }
constexpr ControlPoint::Row ControlPoint::kRows[] = {
    KVOX_ROW(CMD_KVOX_TAP_ENABLE_ID, TapEnableRecord, Enable),
    KVOX_ROW(CMD_KVOX_TAP_BIND_ID, TapBindRecord, Bind),
    {CMD_KVOX_TAP_LIST_ID, "CMD_KVOX_TAP_LIST_ID", sizeof(TapListRecord), &ControlPoint::List},
    KVOX_ROW(CMD_TAP_INFO_ID, TapInfoRecord, Info),
    KVOX_ROW(CMD_KVOX_TAP_SET_BLOCK_LEN_ID, TapSettingRecord, SetBlockLength),
    KVOX_ROW(CMD_KVOX_TAP_SET_JITTER_BUFFER_ID, TapSettingRecord, SetJitterBuffer),
};
#undef KVOX_ROW

const char* OpcodeName(uint16_t opcode) {
  const ControlPoint::Row* row = ControlPoint::Find(opcode);
  return row == nullptr ? "unknown" : row->name;
}

/// Null for codes that are no command.
const ControlPoint::Row* ControlPoint::Find(uint16_t opcode) {
  const auto* row = std::ranges::find(kRows, opcode, &Row::opcode);
  return row == std::end(kRows) ? nullptr : row;
}

void ControlPoint::Answer(std::span<std::byte> bytes) {
  CMD_HDR header;
  std::memcpy(&header, bytes.data(), sizeof header);
  const Row* row = Find(header.opcode);
  ControlStatus status = ControlStatus::kNoOpcode;
  if (row != nullptr) {
    status = bytes.size() == row->size ? (this->*row->handle)(bytes) : ControlStatus::kBadSize;
  }
  Conclude(bytes, row, static_cast<int16_t>(status));
}

void ControlPoint::Refuse(std::span<std::byte> bytes, int16_t status) {
  CMD_HDR header;
  std::memcpy(&header, bytes.data(), sizeof header);
  Conclude(bytes, Find(header.opcode), status);
}

/// Puts the status into the record and counts it.
void ControlPoint::Conclude(std::span<std::byte> bytes, const Row* row, int16_t status) {
  CMD_HDR header;
  std::memcpy(&header, bytes.data(), sizeof header);
  header.status = status;
  std::memcpy(bytes.data(), &header, sizeof header);
  const uint16_t counted = row == nullptr ? uint16_t{0} : header.opcode;
  ++counts_[{counted, header.status}];
  if (status != 0) {
    journal_.Say("command {:#x} ({}) refused with status {}", header.opcode,
                 OpcodeName(header.opcode), header.status);
  }
}

ControlStatus ControlPoint::Enable(Tap& tap, TapEnableRecord& record) {
  if (record.enable > 1) return ControlStatus::kInvalid;
  tap.enabled = record.enable == 1;
  if (tap.enabled) co_processor_.Touch(tap);
  journal_.Say("{}: {}", tap.Name(), tap.enabled ? "enabled" : "disabled");
  return ControlStatus::kOk;
}

ControlStatus ControlPoint::Bind(Tap& tap, TapBindRecord& record) {
  if (!Exists(co_processor_.tapouts(), record.tapout_buffer) ||
      !Exists(co_processor_.injects(), record.inject_buffer)) {
    return ControlStatus::kNoBuffer;
  }
  tap.tapout = record.tapout_buffer;
  tap.inject = record.inject_buffer;
  co_processor_.Touch(tap);
  journal_.Say("{}: bound to tap-out {}, inject {}", tap.Name(), BufferText(tap.tapout),
               BufferText(tap.inject));
  return ControlStatus::kOk;
}

ControlStatus ControlPoint::List(std::span<std::byte> bytes) {
  TapListRecord record;
  std::memcpy(&record, bytes.data(), sizeof record);
  if (std::ranges::count(co_processor_.cores(), record.core) == 0) return ControlStatus::kNoCore;
  std::ranges::fill(record.entries, TapListRecord::Entry{});
  size_t skip = record.page * kTapListPageEntries;
  size_t filled = 0;
  for (const Tap& tap : co_processor_.taps()) {
    if (tap.config.core != record.core) continue;
    if (skip > 0) {
      --skip;
    } else if (filled < kTapListPageEntries) {
      record.entries[filled++] = {.tap = tap.config.name, .index = tap.config.index};
    }
  }
  std::memcpy(bytes.data(), &record, sizeof record);
  return ControlStatus::kOk;
}

ControlStatus ControlPoint::Info(Tap& tap, TapInfoRecord& record) {
  TapInfoState& state = record.state;
  state.enabled = tap.enabled ? 1 : 0;
  state.sample_rate = tap.config.format.sample_rate;
  state.block_length = tap.block_length;
  state.channels = tap.config.format.channels;
  state.bytes_per_sample = tap.config.format.bytes_per_sample;
  state.tapout_buffer = tap.tapout;
  state.inject_buffer = tap.inject;
  return ControlStatus::kOk;
}

ControlStatus ControlPoint::SetBlockLength(Tap& tap, TapSettingRecord& record) {
  if (BlockProblem(tap.config.format, record.value)) return ControlStatus::kInvalid;
  tap.block_length = record.value;
  journal_.Say("{}: block length {}", tap.Name(), tap.block_length);
  return ControlStatus::kOk;
}

ControlStatus ControlPoint::SetJitterBuffer(Tap& tap, TapSettingRecord& record) {
  tap.jitter_buffer = record.value;
  journal_.Say("{}: jitter buffer {}", tap.Name(), tap.jitter_buffer);
  return ControlStatus::kOk;
}

void RecordSplitter::Feed(std::span<const std::byte> bytes) {
  buffer_.insert(buffer_.end(), bytes.begin(), bytes.end());
  size_t used = 0;
  while (buffer_.size() - used >= sizeof(CMD_HDR)) {
    CMD_HDR header;
    std::memcpy(&header, &buffer_[used], sizeof header);
    if (header.reserved != 0 || header.status != 0 || header.size < sizeof header ||
        header.size > kMaxRecord) {
      ++junk_bytes_;
      ++used;
      continue;
    }
    if (buffer_.size() - used < header.size) break;
    taker_(std::span(buffer_).subspan(used, header.size));
    used += header.size;
  }
  buffer_.erase(buffer_.begin(), buffer_.begin() + static_cast<ptrdiff_t>(used));
}

void RecordSplitter::GiveUpPartial() {
  while (!buffer_.empty()) {
    ++junk_bytes_;
    buffer_.erase(buffer_.begin());
    Feed({});
    if (buffer_.size() < sizeof(CMD_HDR)) {
      junk_bytes_ += buffer_.size();
      buffer_.clear();
    }
  }
}

}  // namespace kvox::sim
