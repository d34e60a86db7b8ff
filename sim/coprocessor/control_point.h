// The co-processor's end of the control channel: bytes in, replies out. The records are described
// in docs/protocol.md, the statuses in docs/simulator.md. Pure; one thread at a time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "kvox/common/control_records.h"
#include "sim/coprocessor/co_processor.h"
#include "sim/journal.h"

namespace kvox::sim {

/// What a reply's status says.
enum class ControlStatus : int16_t {
  kOk = 0,
  kNoTap = -2,      // no such tap on that core
  kNoCore = -6,     // no such core
  kNoBuffer = -19,  // no such tap-out or inject device
  kInvalid = -22,   // a value that the tap cannot take
  kNoOpcode = -38,  // no such command
  kBadSize = -90,   // the record has another size than its opcode asks for
};

/// Commands by opcode and status; commands that do not exist are counted under opcode 0.
using CommandCounts = std::map<std::pair<uint16_t, int16_t>, uint64_t>;

/// "CMD_KVOX_TAP_ENABLE_ID"; "unknown" for codes that are no command.
const char* OpcodeName(uint16_t opcode);

class ControlPoint {
 public:
  ControlPoint(CoProcessor& co_processor, Journal& journal)
      : co_processor_(co_processor), journal_(journal) {}

  /// Answers one record (a whole CMD_HDR at least, as long as its size field says) in its place.
  void Answer(std::span<std::byte> record);

  /// Answers one record with a status and does nothing else.
  void Refuse(std::span<std::byte> record, int16_t status);

  const CommandCounts& counts() const { return counts_; }

 private:
  struct Row;
  template <typename Record>
  using Handler = ControlStatus (ControlPoint::*)(Tap&, Record&);
  static const Row kRows[];
  static const Row* Find(uint16_t opcode);
  void Conclude(std::span<std::byte> record, const Row* row, int16_t status);
  friend const char* OpcodeName(uint16_t opcode);

  template <typename Record, Handler<Record> handler>
  ControlStatus Handle(std::span<std::byte> bytes);

  ControlStatus Enable(Tap& tap, TapEnableRecord& record);
  ControlStatus Bind(Tap& tap, TapBindRecord& record);
  ControlStatus List(std::span<std::byte> bytes);
  ControlStatus Info(Tap& tap, TapInfoRecord& record);
  ControlStatus SetBlockLength(Tap& tap, TapSettingRecord& record);
  ControlStatus SetJitterBuffer(Tap& tap, TapSettingRecord& record);

  CoProcessor& co_processor_;
  Journal& journal_;
  CommandCounts counts_;
};

/// Splits the byte stream of the control device into records by their size field, and passes over
/// what cannot be the beginning of one.
class RecordSplitter {
 public:
  /// Longer records than this are junk; the commands there are have 16 to 44 bytes.
  static constexpr size_t kMaxRecord = 256;

  /// Called for every record.
  using Taker = std::function<void(std::span<std::byte> record)>;

  explicit RecordSplitter(Taker taker) : taker_(std::move(taker)) {}

  void Feed(std::span<const std::byte> bytes);
  /// True while a record has begun but not ended.
  bool partial() const { return !buffer_.empty(); }
  /// A writer puts whole records: when the rest of one does not follow it was none. Takes what
  /// records there are behind its first byte and counts everything else as junk.
  void GiveUpPartial();
  /// The writer has gone: what there is of a record is junk.
  void DropPartial() {
    junk_bytes_ += buffer_.size();
    buffer_.clear();
  }

  uint64_t junk_bytes() const { return junk_bytes_; }

 private:
  const Taker taker_;
  std::vector<std::byte> buffer_;
  uint64_t junk_bytes_ = 0;
};

}  // namespace kvox::sim
