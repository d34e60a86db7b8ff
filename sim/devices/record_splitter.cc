#include "sim/devices/record_splitter.h"

#include "sim/coprocessor/command_handler.h"

namespace kvox::sim {

void RecordSplitter::Feed(std::span<const std::byte> bytes) {
  buffer_.insert(buffer_.end(), bytes.begin(), bytes.end());
  size_t used = 0;
  while (buffer_.size() - used >= sizeof(CMD_HDR)) {
    const auto rest = std::span(buffer_).subspan(used);
    const CMD_HDR header = CommandHeader(rest);
    if (header.reserved != 0 || header.status != 0 || header.size < sizeof header ||
        header.size > kMaxRecord) {
      ++junk_bytes_;
      ++used;
      continue;
    }
    if (rest.size() < header.size) break;
    on_record_(rest.first(header.size));
    used += header.size;
  }
  buffer_.erase(buffer_.begin(), buffer_.begin() + static_cast<ptrdiff_t>(used));
}

void RecordSplitter::GiveUpPartial() {
  while (!buffer_.empty()) {
    ++junk_bytes_;
    buffer_.erase(buffer_.begin());
    Feed({});
    if (buffer_.size() < sizeof(CMD_HDR)) DropPartial();
  }
}

}  // namespace kvox::sim
