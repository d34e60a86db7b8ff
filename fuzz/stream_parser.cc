// The bytes of a tap-out device, in reads of any length, compared with a model of the parser; then
// a valid stream, which the parser must find.

#include "buffer/stream_parser.h"

#include <fuzzer/FuzzedDataProvider.h>

#include <algorithm>
#include <string>

#include "fuzz/check.h"
#include "fuzz/stream_model.h"

namespace kvox::fuzz {
namespace {

using Bytes = std::vector<std::byte>;

constexpr size_t kMaxPending = 4 * kPacketMaxSize;
constexpr size_t kAlignment = 8;

/// The header followed by filler, truncated to `size`.
Bytes MakePacket(KvoxPacketHeader header, size_t size, uint8_t filling) {
  Bytes bytes(std::max(size, sizeof header), std::byte{filling});
  std::memcpy(bytes.data(), &header, sizeof header);
  bytes.resize(size);
  return bytes;
}

// Separate variables, so that a byte too many is detected; not allocated for every input, which
// would take most of the time.
std::byte receive_area[kPacketMaxSize];
std::byte packet_area[kPacketMaxSize];

/// A device, the parser that reads it, and the model that must find the same.
class Stream {
 public:
  void Add(std::span<const std::byte> bytes) {
    if (empty()) {
      pending_.clear();
      taken_ = 0;
    }
    const size_t room = kMaxPending - std::min(kMaxPending, pending_.size());
    pending_.insert(pending_.end(), bytes.begin(),
                    bytes.begin() + static_cast<ptrdiff_t>(std::min(bytes.size(), room)));
  }
  bool empty() const { return taken_ == pending_.size(); }

  void Resync() {
    parser_.Resync();
    model_.Resync();
  }
  void StartOver() {
    parser_.StartOver();
    model_.StartOver();
  }

  /// One read of at most `limit` bytes. Returns its findings.
  StreamFindings Read(size_t limit) {
    const std::span<std::byte> area = parser_.ReadArea();
    Check(area.data() == receive_area, "every read goes to the front of the area");
    Check(!area.empty() && area.size() <= kPacketMaxSize, "a read has room and fits the area");
    Check(area.size() == model_.ReadSize(), "the parser asks for what is missing");
    const size_t size = std::min({area.size(), limit, pending_.size() - taken_});
    if (size == 0) return {};
    const std::span<const std::byte> read = std::span(pending_).subspan(taken_, size);
    std::memcpy(area.data(), read.data(), size);
    const StreamFindings found = parser_.Consume(size);
    Compare(found, model_.Consume(read));
    taken_ += size;
    return found;
  }

 private:
  void Compare(const StreamFindings& found, const StreamFindings& expected) const {
    Check(found.next == expected.next, "packets are complete when their last byte is read");
    Check(found.misaligned == expected.misaligned, "only odd reads are misaligned");
    Check(found.skipped == expected.skipped, "only reads without magic are skipped");
    Check(found.bad_version == expected.bad_version, "a wrong version is reported");
    Check(found.bad_payload_size == expected.bad_payload_size, "a wrong size is reported");
    Check(found.excess == expected.excess, "bytes behind a packet are reported");
    Check(found.assembled == expected.assembled && found.expected == expected.expected,
          "a packet's sizes are told");
    if (found.next != StreamFindings::Next::kPacket) return;
    const std::span<const std::byte> packet(found.packet, found.expected);
    Check(Within(packet, receive_area) || Within(packet, packet_area),
          "a packet lies in one of the areas");
    Check(std::memcmp(packet.data(), model_.packet().data(), packet.size()) == 0,
          "a packet is what was read");
  }
  static bool Within(std::span<const std::byte> packet, const std::byte* area) {
    return packet.data() >= area && packet.data() + packet.size() <= area + kPacketMaxSize;
  }

  StreamParser parser_{receive_area, packet_area};
  StreamModel model_;
  Bytes pending_;
  size_t taken_ = 0;  // of pending_, from its front
};

/// Any device input, and any call that the reader may make to the parser.
void Disturb(FuzzedDataProvider& input, Stream& stream) {
  KvoxPacketHeader header;
  switch (input.ConsumeIntegralInRange(0, 7)) {
    case 0:  // a sound packet
      header.payload_size = 4 * input.ConsumeIntegralInRange(0u, kPacketMaxPayload / 4);
      stream.Add(MakePacket(header, kPacketHeaderSize + header.payload_size, 0));
      break;
    case 1:  // a packet that is not what it says
      header.version = input.ConsumeIntegralInRange(0u, 2u);
      header.payload_size = input.ConsumeIntegral<uint32_t>();
      stream.Add(MakePacket(header, input.ConsumeIntegralInRange<size_t>(0, kPacketMaxSize), 1));
      break;
    case 2: {  // one within another's audio
      header.payload_size = 4 * input.ConsumeIntegralInRange(0u, 64u);
      Bytes bytes = MakePacket(header, kPacketHeaderSize + 4 * 64, 2);
      stream.Add(bytes);
      stream.Add(std::span(bytes).subspan(input.ConsumeIntegralInRange<size_t>(0, 64)));
      break;
    }
    case 3: {
      const std::string bytes = input.ConsumeRandomLengthString();
      stream.Add(std::as_bytes(std::span(bytes)));
      break;
    }
    case 4:
      stream.Resync();
      break;
    default: {
      const bool odd = input.ConsumeIntegralInRange(0, 15) == 0;
      const auto limit = input.ConsumeIntegralInRange<size_t>(1, kPacketMaxSize);
      const auto found = stream.Read(odd ? limit : (limit + 7) / kAlignment * kAlignment);
      if (found.next != StreamFindings::Next::kRead) stream.StartOver();
    }
  }
}

void ReadAll(Stream& stream) {
  while (!stream.empty()) {
    if (stream.Read(kPacketMaxSize).next != StreamFindings::Next::kRead) stream.StartOver();
  }
}

/// Packets that come one at a time, as from a working device, are all found once an earlier partial
/// packet is over.
void ExpectRecovery(FuzzedDataProvider& input, Stream& stream) {
  const uint32_t size = kAlignment * input.ConsumeIntegralInRange(256u, 8192u);
  const size_t chunk = kAlignment * input.ConsumeIntegralInRange<size_t>(1, 8192);
  KvoxPacketHeader header;
  header.payload_size = size - kPacketHeaderSize;
  const size_t enough = 2 * kPacketMaxSize / size + 4;
  for (size_t number = 0; number < enough + 3; ++number) {
    header.packet_num = static_cast<uint32_t>(number);
    stream.Add(MakePacket(header, size, 0));
    size_t found = 0;
    // Any chunks will do once the stream is found, but finding it takes a read that ends in it.
    const size_t limit = number < enough ? kPacketMaxSize : chunk;
    while (!stream.empty()) {
      const StreamFindings findings = stream.Read(limit);
      if (findings.next == StreamFindings::Next::kPacket) {
        KvoxPacketHeader got;
        std::memcpy(&got, findings.packet, sizeof got);
        found += findings.expected == size && got.packet_num == number && findings.excess == 0;
      }
      if (number >= enough) Check(!findings.Junk(), "a sound stream has nothing to report");
      if (findings.next != StreamFindings::Next::kRead) stream.StartOver();
    }
    if (number >= enough) Check(found == 1, "every packet of a sound stream is found");
  }
}

}  // namespace
}  // namespace kvox::fuzz

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace kvox::fuzz;
  FuzzedDataProvider input(data, size);
  Stream stream;
  while (input.remaining_bytes() > 4) Disturb(input, stream);
  ReadAll(stream);
  if (input.ConsumeBool()) ExpectRecovery(input, stream);
  return 0;
}
