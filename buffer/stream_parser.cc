#include "buffer/stream_parser.h"

#include <algorithm>
#include <array>
#include <cstring>

namespace kvox {
namespace {

constexpr uint32_t kReadAlignment = 8;
constexpr uint32_t kReportedExcess = 8;
constexpr size_t kWord = sizeof(uint32_t);
constexpr size_t kStride = 64;                 // bytes that the search compares per iteration
constexpr size_t kBlocks[] = {4096, kStride};  // and between two checks of the result

uint32_t WordAt(const std::byte* at) {
  uint32_t word;
  std::memcpy(&word, at, sizeof word);
  return word;
}

// The search is compiled for CPUs with wider vectors as well; the loader chooses. Not with clang,
// whose ThreadSanitizer does not run that early.
#if defined(__x86_64__) && !defined(__clang__)
#define KVOX_WIDE_VECTORS __attribute__((target_clones("avx2", "default")))
#else
#define KVOX_WIDE_VECTORS
#endif

/// Words that the CPU compares at once.
using Words = uint32_t __attribute__((vector_size(32)));

inline void CompareWords(const std::byte* at, Words& found) {
  Words words;
  std::memcpy(&words, at, sizeof words);
  found |= reinterpret_cast<Words>(words == kPacketMagic);
}

/// No early exit: every read is searched completely, so this is the part of the packet path whose
/// time grows fastest with the packet. `size` is a multiple of kStride.
KVOX_WIDE_VECTORS bool HoldsMagic(const std::byte* bytes, size_t size) {
  Words found = {};
  Words also_found = {};
  for (const std::byte* at = bytes; at != bytes + size; at += kStride) {
    CompareWords(at, found);
    CompareWords(at + sizeof(Words), also_found);
  }
  found |= also_found;
  uint32_t any = 0;
  for (size_t i = 0; i < sizeof found / sizeof any; ++i) any |= found[i];
  return any != 0;
}

}  // namespace

std::optional<uint32_t> FindLastMagic(std::span<const std::byte> bytes) {
  size_t end = bytes.size() / kWord * kWord;
  for (const size_t block : kBlocks) {
    while (end >= block && !HoldsMagic(bytes.data() + end - block, block)) end -= block;
  }
  while (end >= kWord) {
    end -= kWord;
    if (WordAt(bytes.data() + end) == kPacketMagic) return static_cast<uint32_t>(end);
  }
  return std::nullopt;
}

StreamParser::StreamParser(Area receive, Area packet) : receive_(receive), packet_(packet) {}

std::span<std::byte> StreamParser::ReadArea() const {
  if (resyncing_) return receive_;
  return receive_.first(expected_ - assembled_);
}

void StreamParser::StartOver() {
  assembled_ = 0;
  header_parsed_ = false;
}

StreamFindings StreamParser::Consume(size_t read_size) {
  const auto size = static_cast<uint32_t>(read_size);
  StreamFindings findings;
  if (size % kReadAlignment != 0) {
    findings.misaligned = size;
    findings.next = StreamFindings::Next::kStartOver;
    StartOver();
    Resync();
    return findings;
  }
  if (assembling()) {
    Append(size);
  } else if (const auto offset = FindLastMagic(receive_.first(size))) {
    Begin(*offset, size);
  } else {
    findings.skipped = size;
    return findings;
  }
  if (!header_parsed_ && assembled_ >= kPacketHeaderSize && !CheckHeader(findings)) {
    StartOver();
    Resync();
    return findings;
  }
  if (!header_parsed_ || assembled_ < expected_) {
    MoveToPacketArea();
    return findings;
  }
  const uint32_t excess = assembled_ - expected_;
  findings.next = StreamFindings::Next::kPacket;
  findings.excess = excess >= kReportedExcess ? excess : 0;
  findings.assembled = assembled_;
  findings.expected = expected_;
  findings.packet = front_;
  return findings;
}

/// A packet at the start of a read stays there: in a healthy stream every packet arrives in one
/// read and is never copied. Elsewhere it may be misaligned for its 64-bit fields.
void StreamParser::Begin(uint32_t offset, uint32_t size) {
  front_ = receive_.data() + offset;
  assembled_ = size - offset;
  if (offset > 0) MoveToPacketArea();
}

void StreamParser::Append(uint32_t size) {
  const uint32_t room = assembled_ < kPacketMaxSize ? kPacketMaxSize - assembled_ : 0;
  std::memcpy(packet_.data() + assembled_, receive_.data(), std::min(size, room));
  assembled_ += size;
}

void StreamParser::MoveToPacketArea() {
  if (front_ == packet_.data()) return;
  std::memcpy(packet_.data(), front_, assembled_);
  front_ = packet_.data();
}

bool StreamParser::CheckHeader(StreamFindings& findings) {
  KvoxPacketHeader header;
  std::memcpy(&header, front_, sizeof header);
  if (header.version != kPacketVersion) findings.bad_version = header.version;
  if (header.payload_size > kPacketMaxPayload || header.payload_size % kWord != 0) {
    findings.bad_payload_size = header.payload_size;
  }
  if (findings.BadHeader()) return false;
  expected_ = header.payload_size + kPacketHeaderSize;
  resyncing_ = false;
  header_parsed_ = true;
  return true;
}

}  // namespace kvox
