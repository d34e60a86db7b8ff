// Finds packets in the byte stream of a tap-out device. It uses no device, clock or log: it returns
// errors as findings, which the caller turns into log lines. The packet format is in
// docs/protocol.md.
//
// The stream has no framing beyond the magic word that begins a header, so the parser is always in
// one of two states. Resyncing, it asks for large reads and takes the last magic of a read as the
// start of a packet, which skips what has queued up. Once a header is valid it asks for exactly the
// rest of that packet, then for whole packets of that size; an invalid one leads back to large
// reads.
//
// One thread at a time, the buffer's I/O thread. RT: nothing here allocates, locks or logs.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

#include "kvox/common/kvox_packet.h"

namespace kvox {

/// What one read contained. Byte counts are 0 by default.
struct StreamFindings {
  enum class Next {
    kRead,       // no packet yet: read again
    kStartOver,  // the stream lost its alignment: everything assembled is dropped
    kPacket,     // `packet` is complete; call StartOver() once it is used up
  };
  Next next = Next::kRead;
  uint32_t misaligned = 0;  // bytes of a read whose length is not a multiple of 8
  uint32_t skipped = 0;     // bytes of a read that held no magic
  std::optional<uint32_t> bad_version;
  std::optional<uint32_t> bad_payload_size;
  uint32_t excess = 0;     // bytes after the packet, dropped; reported from 8 on
  uint32_t assembled = 0;  // with kPacket: bytes that were gathered for the packet
  uint32_t expected = 0;   // with kPacket: its size, header included

  /// With kPacket: `expected` bytes, header first, until the next StartOver().
  std::byte* packet = nullptr;

  bool BadHeader() const { return bad_version || bad_payload_size; }

  /// Whether the read contained no part of a packet.
  bool Junk() const { return misaligned > 0 || skipped > 0 || BadHeader(); }
};

class StreamParser {
 public:
  using Area = std::span<std::byte, kPacketMaxSize>;

  /// `receive` takes every read; a packet that did not arrive in one read is put together in
  /// `packet`. Both outlive the parser.
  StreamParser(Area receive, Area packet);

  /// Where the next read goes, and how many bytes it may ask for.
  std::span<std::byte> ReadArea() const;

  /// Takes the `size` bytes (1 to ReadArea().size()) that a read put at the front of ReadArea().
  StreamFindings Consume(size_t size);

  /// Drops the packet under assembly.
  void StartOver();

  /// Asks for large reads again. Keeps what is assembled, as after a transient read error.
  void Resync() { resyncing_ = true; }

  bool resyncing() const { return resyncing_; }
  bool assembling() const { return assembled_ > 0; }

 private:
  void Begin(uint32_t offset, uint32_t size);
  void Append(uint32_t size);
  bool CheckHeader(StreamFindings& findings);
  void MoveToPacketArea();

  const Area receive_;
  const Area packet_;
  bool resyncing_ = true;
  bool header_parsed_ = false;
  uint32_t expected_ = kPacketMaxSize;
  uint32_t assembled_ = 0;      // may exceed the area: the excess is counted, not kept
  std::byte* front_ = nullptr;  // of the packet under assembly: in receive_ or in packet_
};

/// Offset of the last 4-byte-aligned magic word in `bytes`; none when there is no such word.
std::optional<uint32_t> FindLastMagic(std::span<const std::byte> bytes);

}  // namespace kvox
