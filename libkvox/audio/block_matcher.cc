#include "libkvox/audio/block_matcher.h"

#include <utility>

namespace kvox::client {

using flight::Loss;
using flight::PacketRecord;

void BlockMatcher::Add(std::span<const PacketRecord> records) {
  records_.insert(records_.end(), records.begin(), records.end());
}

/// The relay delivers a block while its packet is dispatched. One that this process has received
/// later was recorded as late; a relay that waits for its client drops what comes in between.
BlockMatcher::Result BlockMatcher::Find(uint64_t received_ns, Match& match) {
  while (!records_.empty()) {
    const PacketRecord& record = records_.front();
    if (record.arrived_ns > received_ns) return Result::kNever;  // its own record was not readable
    renumbered_ = renumbered_ || (record.flags & flight::kFirst) != 0;
    const bool during = received_ns <= record.arrived_ns + record.dispatch_ns;
    const bool late =
        record.loss == Loss::kClientLate && record.slowest_id == relay_ && record.client_ns > 0;
    if ((during || late) && record.arrived_ns > given_up_ns_) {
      match = {record, std::exchange(renumbered_, false)};
      records_.pop_front();
      return Result::kFound;
    }
    records_.pop_front();
  }
  return Result::kNotYet;
}

}  // namespace kvox::client
