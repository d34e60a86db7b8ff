// A naive stream parser as docs/protocol.md describes it, without regard to speed or memory: it
// copies every byte and searches for the magic word by word.
#pragma once

#include <cstring>
#include <optional>
#include <span>
#include <vector>

#include "buffer/stream_parser.h"

namespace kvox::fuzz {

class StreamModel {
 public:
  size_t ReadSize() const { return resyncing_ ? kPacketMaxSize : expected_ - held_.size(); }

  void StartOver() {
    held_.clear();
    in_packet_ = false;
  }
  void Resync() { resyncing_ = true; }

  /// The findings of one read, except `packet`.
  StreamFindings Consume(std::span<const std::byte> read) {
    StreamFindings findings;
    const auto size = static_cast<uint32_t>(read.size());
    if (size % 8 != 0) {
      findings.misaligned = size;
      findings.next = StreamFindings::Next::kStartOver;
      LoseTrack();
      return findings;
    }
    if (held_.empty()) {
      const auto magic = LastMagic(read);
      if (!magic) {
        findings.skipped = size;
        return findings;
      }
      read = read.subspan(*magic);
    }
    held_.insert(held_.end(), read.begin(), read.end());
    if (!in_packet_ && held_.size() >= kPacketHeaderSize && !TakeHeader(findings)) {
      LoseTrack();
      return findings;
    }
    if (!in_packet_ || held_.size() < expected_) return findings;
    findings.next = StreamFindings::Next::kPacket;
    findings.assembled = static_cast<uint32_t>(held_.size());
    findings.expected = expected_;
    const uint32_t excess = findings.assembled - expected_;
    findings.excess = excess >= 8 ? excess : 0;
    return findings;
  }

  /// With a packet: its bytes.
  std::span<const std::byte> packet() const { return std::span(held_).first(expected_); }

  static std::optional<size_t> LastMagic(std::span<const std::byte> bytes) {
    std::optional<size_t> last;
    for (size_t at = 0; at + sizeof kPacketMagic <= bytes.size(); at += sizeof kPacketMagic) {
      uint32_t word;
      std::memcpy(&word, &bytes[at], sizeof word);
      if (word == kPacketMagic) last = at;
    }
    return last;
  }

 private:
  void LoseTrack() {
    StartOver();
    Resync();
  }
  bool TakeHeader(StreamFindings& findings) {
    KvoxPacketHeader header;
    std::memcpy(&header, held_.data(), sizeof header);
    if (header.version != kPacketVersion) findings.bad_version = header.version;
    if (header.payload_size > kPacketMaxPayload || header.payload_size % 4 != 0) {
      findings.bad_payload_size = header.payload_size;
    }
    if (findings.BadHeader()) return false;
    expected_ = kPacketHeaderSize + header.payload_size;
    resyncing_ = false;
    in_packet_ = true;
    return true;
  }

  bool resyncing_ = true;
  bool in_packet_ = false;
  uint32_t expected_ = kPacketMaxSize;
  std::vector<std::byte> held_;
};

}  // namespace kvox::fuzz
