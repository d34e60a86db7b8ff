// The file format of recordings: pcapng (draft-ietf-opsawg-pcapng), an interface a node, an
// enhanced packet block a record. The data of a block begin with a head of eight bytes: version
// (1), event, number of the interface, number. No I/O.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "sim/recording/node_record.h"

namespace kvox::sim {

/// Link types of the format that are free for private use: what a node carries. 149 is not: common
/// programs take it for another vendor's.
enum class LinkType : uint16_t { kControl = 147, kTapOut = 148, kInject = 150, kOther = 151 };

/// By the node's name; none for what is no node of a co-processor.
std::optional<LinkType> LinkTypeOf(std::string_view node);

/// Makes the blocks of one file. One thread.
class PcapngWriter {
 public:
  /// What the file begins with.
  static std::vector<std::byte> Begin();

  /// The block of a record, behind that of its node where that is new.
  std::vector<std::byte> Add(const NodeRecord& record);

 private:
  std::map<std::string, uint32_t, std::less<>> interfaces_;
};

/// Takes a file apart. Blocks of other kinds are skipped, as are packets of interfaces that are no
/// nodes. One thread.
class PcapngReader {
 public:
  /// `bytes` outlive it.
  explicit PcapngReader(std::span<const std::byte> bytes) : left_(bytes) {}

  /// False at the end. Throws std::runtime_error with the position of what is wrong; a last block
  /// that is cut is the end.
  bool Next(NodeRecord& record);

  /// Whether the last block was cut.
  bool cut() const { return cut_; }
  /// Bytes before the block at hand.
  uint64_t position() const { return position_; }

 private:
  struct Interface {
    std::string node;                  // "": it is none
    uint64_t units_per_s = 1'000'000;  // of time stamps
  };

  bool TakeBlock(uint32_t& type, std::span<const std::byte>& body);
  void TakeSection(std::span<const std::byte> body);
  void TakeInterface(std::span<const std::byte> body);
  bool TakePacket(std::span<const std::byte> body, NodeRecord& record) const;
  [[noreturn]] void Fail(std::string_view problem) const;

  std::span<const std::byte> left_;
  uint64_t position_ = 0;  // of the block at hand
  uint64_t next_ = 0;
  bool begun_ = false;
  bool cut_ = false;
  std::vector<Interface> interfaces_;  // of the section
};

}  // namespace kvox::sim
