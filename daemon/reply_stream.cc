#include "daemon/reply_stream.h"

#include <cstring>

#include "kvox/common/control_records.h"

namespace kvox {
namespace {

/// Far above any record of the protocol; a larger size field is junk.
constexpr size_t kMaxRecordSize = 1024;

/// Length of the record at the front; 0 when it is not complete.
size_t RecordLength(std::span<const std::byte> bytes) {
  if (bytes.size() < sizeof(CMD_HDR)) return 0;
  CMD_HDR header;
  std::memcpy(&header, bytes.data(), sizeof header);
  if (header.size < sizeof(CMD_HDR) || header.size > kMaxRecordSize) return bytes.size();
  return header.size <= bytes.size() ? header.size : 0;
}

}  // namespace

std::vector<std::vector<std::byte>> ReplyStream::Append(std::span<const std::byte> bytes) {
  pending_.insert(pending_.end(), bytes.begin(), bytes.end());
  std::vector<std::vector<std::byte>> records;
  std::span<const std::byte> rest = pending_;
  for (size_t length = RecordLength(rest); length > 0; length = RecordLength(rest)) {
    records.emplace_back(rest.begin(), rest.begin() + static_cast<ptrdiff_t>(length));
    rest = rest.subspan(length);
  }
  pending_.erase(pending_.begin(), pending_.end() - static_cast<ptrdiff_t>(rest.size()));
  return records;
}

size_t ReplyStream::DropPartial() {
  const size_t dropped = pending_.size();
  pending_.clear();
  return dropped;
}

}  // namespace kvox
