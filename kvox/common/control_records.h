// Records of the control channel: every command and its reply are one record of the same size that
// starts with CMD_HDR. Little-endian throughout; docs/protocol.md has the byte tables. Daemon,
// simulator and tests share this header.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <type_traits>

namespace kvox {

static_assert(std::endian::native == std::endian::little, "the wire is little-endian");

enum ControlOpcode : uint16_t {
  CMD_KVOX_TAP_ENABLE_ID = 0xCA,
  CMD_KVOX_TAP_BIND_ID = 0xCB,
  CMD_KVOX_TAP_LIST_ID = 0xCC,
  CMD_TAP_INFO_ID = 0xCD,
  CMD_KVOX_TAP_SET_BLOCK_LEN_ID = 0xCE,
  CMD_KVOX_TAP_SET_JITTER_BUFFER_ID = 0xCF,
};

/// As a buffer id: no buffer.
inline constexpr uint8_t kNoBuffer = 0xFF;

#pragma pack(push, 1)

struct CMD_HDR {
  uint8_t reserved = 0;
  uint8_t seq = 0;    // low 8 bits of the sender's command counter
  uint16_t size = 0;  // of the whole record, this header included
  uint16_t opcode = 0;
  int16_t status = 0;  // 0 in a command; the co-processor's result in a reply
};

/// Names one tap point of the co-processor.
struct TapAddress {
  uint32_t tap = 0;  // four-character code
  uint8_t index = 0;
  uint8_t core = 0;
};

struct TapEnableRecord {
  CMD_HDR header;
  TapAddress address;
  uint8_t enable = 0;
  uint8_t reserved = 0;
};

struct TapBindRecord {
  CMD_HDR header;
  TapAddress address;
  uint8_t reserved[2] = {};
  uint8_t tapout_buffer = kNoBuffer;
  uint8_t inject_buffer = kNoBuffer;
};

inline constexpr size_t kTapListPageEntries = 4;

struct TapListRecord {
  struct Entry {
    uint32_t tap = 0;  // 0 ends the list
    uint8_t index = 0;
    uint8_t reserved[3] = {};
  };
  CMD_HDR header;
  uint8_t core = 0;
  uint8_t page = 0;
  uint8_t reserved[2] = {};
  Entry entries[kTapListPageEntries];
};

/// The state of a tap point: the first 20 bytes of a KvoxTapPointState.
struct TapInfoState {
  uint32_t tap = 0;
  uint8_t index = 0;
  uint8_t core = 0;
  uint8_t enabled = 0;
  uint8_t reserved = 0;
  uint32_t sample_rate = 0;   // Hz
  uint32_t block_length = 0;  // frames a block
  uint8_t channels = 0;
  uint8_t bytes_per_sample = 0;
  uint8_t tapout_buffer = 0;
  uint8_t inject_buffer = 0;
};

struct TapInfoRecord {
  CMD_HDR header;
  TapInfoState state;  // in a command only tap, index and core are set
};

/// CMD_KVOX_TAP_SET_BLOCK_LEN_ID and CMD_KVOX_TAP_SET_JITTER_BUFFER_ID.
struct TapSettingRecord {
  CMD_HDR header;
  TapAddress address;
  uint8_t reserved[2] = {};
  uint32_t value = 0;
};

#pragma pack(pop)

static_assert(sizeof(CMD_HDR) == 8 && offsetof(CMD_HDR, opcode) == 4 &&
              offsetof(CMD_HDR, status) == 6);
static_assert(sizeof(TapEnableRecord) == 16 && offsetof(TapEnableRecord, enable) == 14);
static_assert(sizeof(TapBindRecord) == 18 && offsetof(TapBindRecord, tapout_buffer) == 16);
static_assert(sizeof(TapListRecord) == 44 && offsetof(TapListRecord, entries) == 12);
static_assert(sizeof(TapInfoState) == 20 && offsetof(TapInfoState, sample_rate) == 8 &&
              offsetof(TapInfoState, channels) == 16 &&
              offsetof(TapInfoState, inject_buffer) == 19);
static_assert(sizeof(TapInfoRecord) == 28 && offsetof(TapInfoRecord, state) == 8);
static_assert(sizeof(TapSettingRecord) == 20 && offsetof(TapSettingRecord, value) == 16);
static_assert(std::is_trivially_copyable_v<TapListRecord> &&
              std::is_trivially_copyable_v<TapInfoRecord>);

}  // namespace kvox
