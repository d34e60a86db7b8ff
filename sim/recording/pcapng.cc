#include "sim/recording/pcapng.h"

#include <fmt/format.h>

#include <algorithm>
#include <bit>
#include <cstring>
#include <stdexcept>
#include <type_traits>

#include "kvox/common/device_names.h"

namespace kvox::sim {
namespace {

static_assert(std::endian::native == std::endian::little);

constexpr uint32_t kSection = 0x0A0D0D0A;
constexpr uint32_t kInterface = 1;
constexpr uint32_t kPacket = 6;
constexpr uint32_t kByteOrder = 0x1A2B3C4D;
constexpr uint32_t kSwapped = 0x4D3C2B1A;
constexpr uint16_t kEndOfOptions = 0;
constexpr uint16_t kApplication = 4;  // of a section
constexpr uint16_t kName = 2;         // of an interface
constexpr uint16_t kResolution = 9;   // likewise
constexpr uint16_t kFlags = 2;        // of a packet
constexpr uint32_t kInbound = 1;
constexpr uint32_t kOutbound = 2;
constexpr uint8_t kHeadVersion = 1;
constexpr size_t kHeadSize = 8;
constexpr size_t kFrameSize = 12;  // type and both lengths of a block
constexpr uint32_t kLongestBlock = 16u << 20;
constexpr uint32_t kLongestRecord = 1u << 20;  // of what one read or write has passed
constexpr uint64_t kNsPerSecond = 1'000'000'000;

/// The bytes of one block.
class Block {
 public:
  explicit Block(uint32_t type) {
    Put(type);
    Put(uint32_t{0});  // the length, see Finish()
  }

  template <typename T>
  requires std::is_scalar_v<T>
  void Put(T value) { Put(std::as_bytes(std::span(&value, 1))); }
  void Put(std::span<const std::byte> bytes) {
    bytes_.insert(bytes_.end(), bytes.begin(), bytes.end());
  }
  void Pad() { bytes_.resize((bytes_.size() + 3) & ~size_t{3}); }

  void PutOption(uint16_t code, std::span<const std::byte> value) {
    Put(code);
    Put(static_cast<uint16_t>(value.size()));
    Put(value);
    Pad();
  }
  void PutOption(uint16_t code, std::string_view value) {
    PutOption(code, std::as_bytes(std::span(value)));
  }

  std::vector<std::byte> Finish() {
    PutOption(kEndOfOptions, std::string_view());
    const auto length = static_cast<uint32_t>(bytes_.size() + sizeof(uint32_t));
    Put(length);
    std::memcpy(&bytes_[sizeof(uint32_t)], &length, sizeof length);
    return std::move(bytes_);
  }

 private:
  std::vector<std::byte> bytes_;
};

/// Reads fields one after the other; what is behind the end is zero.
class Fields {
 public:
  explicit Fields(std::span<const std::byte> bytes) : left_(bytes) {}

  template <typename T>
  T Take() {
    T value{};
    const auto bytes = Take(sizeof value);
    std::memcpy(&value, bytes.data(), bytes.size());
    return value;
  }
  /// Fewer at the end.
  std::span<const std::byte> Take(size_t count) {
    const auto taken = left_.first(std::min(count, left_.size()));
    left_ = left_.subspan(taken.size());
    return taken;
  }
  void SkipPadding(size_t length) { Take((4 - length % 4) % 4); }
  size_t left() const { return left_.size(); }

  /// Calls `on_option` with code and value of each option.
  void ForEachOption(auto on_option) {
    while (left() >= 4) {
      const auto code = Take<uint16_t>();
      const auto length = Take<uint16_t>();
      if (code == kEndOfOptions) return;
      on_option(code, Take(length));
      SkipPadding(length);
    }
  }

 private:
  std::span<const std::byte> left_;
};

std::string_view TextOf(std::span<const std::byte> bytes) {
  return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

/// Of the option if_tsresol: a negative power of 10, or of 2 with the highest bit.
uint64_t UnitsOf(std::span<const std::byte> option) {
  if (option.empty()) return 1'000'000;
  const auto code = static_cast<uint8_t>(option[0]);
  const uint64_t base = (code & 0x80) != 0 ? 2 : 10;
  uint64_t units = 1;
  for (int i = 0; i < (code & 0x7F) && units <= UINT64_MAX / base; ++i) units *= base;
  return units;
}

uint64_t ToNs(uint64_t time, uint64_t units_per_s) {
  const uint64_t seconds = time / units_per_s;
  const auto rest = static_cast<double>(time % units_per_s) / static_cast<double>(units_per_s);
  if (units_per_s == kNsPerSecond) return time;
  return seconds * kNsPerSecond + static_cast<uint64_t>(rest * 1e9);
}

}  // namespace

std::optional<LinkType> LinkTypeOf(std::string_view node) {
  if (node == kMarkerDevice) return LinkType::kOther;
  if (node == kControlDevice) return LinkType::kControl;
  if (node.find('/') != node.npos) return std::nullopt;
  if (node.starts_with(kTapOutPrefix)) return LinkType::kTapOut;
  if (node.starts_with(kInjectPrefix)) return LinkType::kInject;
  return std::nullopt;
}

std::vector<std::byte> PcapngWriter::Begin() {
  Block block(kSection);
  block.Put(kByteOrder);
  block.Put(uint16_t{1});  // the format's version: 1.0
  block.Put(uint16_t{0});
  block.Put(UINT64_MAX);  // the section's length is not known
  block.PutOption(kApplication, "kvosim " KVOX_VERSION);
  return block.Finish();
}

std::vector<std::byte> PcapngWriter::Add(const NodeRecord& record) {
  std::vector<std::byte> bytes;
  const auto [interface, is_new] =
      interfaces_.try_emplace(record.node, static_cast<uint32_t>(interfaces_.size()));
  if (is_new) {
    Block block(kInterface);
    block.Put(LinkTypeOf(record.node).value_or(LinkType::kOther));
    block.Put(uint16_t{0});
    block.Put(uint32_t{0});  // no limit of a packet's length
    block.PutOption(kName, record.node);
    block.PutOption(kResolution, std::string_view("\x09", 1));
    bytes = block.Finish();
  }
  const auto size = static_cast<uint32_t>(record.bytes.size());
  Block block(kPacket);
  block.Put(interface->second);
  block.Put(static_cast<uint32_t>(record.time_ns >> 32));
  block.Put(static_cast<uint32_t>(record.time_ns));
  block.Put(static_cast<uint32_t>(kHeadSize + size));
  block.Put(static_cast<uint32_t>(kHeadSize + std::max(record.length, size)));
  block.Put(kHeadVersion);
  block.Put(record.event);
  block.Put(static_cast<uint16_t>(interface->second));
  block.Put(record.number);
  block.Put(record.bytes);
  block.Pad();
  const uint32_t flags = record.to_coprocessor ? kOutbound : kInbound;
  block.PutOption(kFlags, std::as_bytes(std::span(&flags, 1)));
  const std::vector<std::byte> packet = block.Finish();
  bytes.insert(bytes.end(), packet.begin(), packet.end());
  return bytes;
}

bool PcapngReader::Next(NodeRecord& record) {
  uint32_t type = 0;
  std::span<const std::byte> body;
  while (TakeBlock(type, body)) {
    if (type == kSection) TakeSection(body);
    if (type == kInterface) TakeInterface(body);
    if (type == kPacket && TakePacket(body, record)) return true;
  }
  return false;
}

bool PcapngReader::TakeBlock(uint32_t& type, std::span<const std::byte>& body) {
  position_ = next_;
  if (left_.empty()) return false;
  Fields fields(left_);
  type = fields.Take<uint32_t>();
  const auto length = fields.Take<uint32_t>();
  if (!begun_ && (left_.size() < kFrameSize || type != kSection)) Fail("this is no pcapng file");
  begun_ = true;
  if (left_.size() < kFrameSize) {
    cut_ = true;
    return false;
  }
  if (type == kSection && Fields(left_.subspan(8)).Take<uint32_t>() == kSwapped) {
    Fail("it was written on a big-endian machine, and is not supported");
  }
  if (length <= kLongestBlock && length > left_.size()) {
    cut_ = true;
    return false;
  }
  if (length < kFrameSize || length % 4 != 0 || length > kLongestBlock) {
    Fail(fmt::format("a block of {} bytes is no block", length));
  }
  body = left_.subspan(8, length - kFrameSize);
  if (Fields(left_.subspan(length - 4)).Take<uint32_t>() != length) {
    Fail("a block's two lengths differ");
  }
  left_ = left_.subspan(length);
  next_ += length;
  return true;
}

void PcapngReader::TakeSection(std::span<const std::byte> body) {
  Fields fields(body);
  if (fields.Take<uint32_t>() != kByteOrder) Fail("a section has no byte order");
  if (const auto major = fields.Take<uint16_t>(); major != 1) {
    Fail(fmt::format("the format's version is {}; expected 1", major));
  }
  interfaces_.clear();
}

void PcapngReader::TakeInterface(std::span<const std::byte> body) {
  Fields fields(body);
  const auto link_type = fields.Take<LinkType>();
  fields.Take(6);
  Interface interface;
  fields.ForEachOption([&](uint16_t code, std::span<const std::byte> value) {
    if (code == kName) interface.node = TextOf(value);
    if (code == kResolution) interface.units_per_s = UnitsOf(value);
  });
  if (LinkTypeOf(interface.node) != link_type) interface.node.clear();
  interfaces_.push_back(std::move(interface));
}

bool PcapngReader::TakePacket(std::span<const std::byte> body, NodeRecord& record) const {
  Fields fields(body);
  const auto interface = fields.Take<uint32_t>();
  const uint64_t high = fields.Take<uint32_t>();
  const uint64_t time = high << 32 | fields.Take<uint32_t>();
  const auto captured = fields.Take<uint32_t>();
  const auto original = fields.Take<uint32_t>();
  if (interface >= interfaces_.size()) Fail("a packet's interface is not described");
  if (captured > fields.left()) Fail("a packet is longer than its block");
  if (interfaces_[interface].node.empty() || captured < kHeadSize) return false;
  Fields data(fields.Take(captured));
  fields.SkipPadding(captured);
  const auto version = data.Take<uint8_t>();
  const auto event = data.Take<uint8_t>();
  data.Take(2);
  if (version != kHeadVersion) {
    Fail(fmt::format("a record's version is {}; expected {}", version, kHeadVersion));
  }
  if (original > kLongestRecord) Fail(fmt::format("a record of {} bytes is too long", original));
  if (event >= kNodeEvents) Fail(fmt::format("a record's event is {}", event));
  record.node = interfaces_[interface].node;
  record.time_ns = ToNs(time, interfaces_[interface].units_per_s);
  record.event = static_cast<NodeEvent>(event);
  record.number = data.Take<uint32_t>();
  const auto bytes = data.Take(data.left());
  record.bytes.assign(bytes.begin(), bytes.end());
  record.length = std::max(original, captured) - static_cast<uint32_t>(kHeadSize);
  record.to_coprocessor = false;
  fields.ForEachOption([&](uint16_t code, std::span<const std::byte> value) {
    if (code == kFlags) record.to_coprocessor = (Fields(value).Take<uint32_t>() & 3) == kOutbound;
  });
  return true;
}

void PcapngReader::Fail(std::string_view problem) const {
  throw std::runtime_error(fmt::format("at byte {}: {}", position_, problem));
}

}  // namespace kvox::sim
