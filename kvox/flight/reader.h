// Reads a flight log as values, with plain reads: the daemon may be writing, or be dead, and the
// file may be damaged. Nothing that it contains is trusted.
//
// Any thread.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "kvox/common/unique_fd.h"
#include "kvox/flight/layout.h"

namespace kvox::flight {

/// A histogram of nanoseconds.
class Distribution {
 public:
  std::array<uint64_t, kBuckets> counts = {};
  uint64_t sum = 0;

  uint64_t Total() const;

  /// What `share` (0 to 1) of the values do not exceed: the upper end of their bucket. None without
  /// values.
  std::optional<uint64_t> Percentile(double share) const;
};

struct StreamView {
  std::string name;
  bool on = false;
  uint64_t since_ns = 0;  // when it was switched on last
  uint64_t dispatched = 0;
  std::array<uint64_t, kLosses> lost = {};  // by reason
  uint64_t repeated = 0;
  uint64_t renumbered = 0;
  uint64_t early = 0;
  uint64_t late = 0;
  uint64_t junk_bytes = 0;
  Distribution arrival_error;
  Distribution processing;
  Distribution writing;
  Distribution client;
  std::vector<PacketRecord> packets = {};  // oldest first
  uint64_t torn = 0;  // records that could not be read, of those that should be there

  struct Scheduling {
    uint64_t at_ns;
    uint64_t waited_ns;
  };
  std::vector<Scheduling> scheduling = {};  // oldest first

  uint64_t Lost() const;
};

struct InjectView {
  std::string name;  // empty for a slot that is not used
  uint64_t written = 0;
  uint64_t full = 0;
  uint64_t gone = 0;
};

struct EventView {
  uint64_t at_ns = 0;  // when it ended
  uint64_t duration_ns = 0;
  uint32_t pid = 0;
  int32_t status = 0;
  EventKind kind = EventKind::kDaemon;
  std::string subject;
  std::string text;
};

struct FlightView {
  std::string program = {};
  uint32_t pid = 0;
  bool live = false;  // the daemon that writes it still runs; else no stream is on
  uint64_t started_ns = 0;
  uint64_t wall_offset_ns = 0;  // to be added to a time for the wall clock
  uint64_t unrecorded = 0;      // times that a stream found no place
  std::vector<StreamView> streams = {};
  std::vector<InjectView> injects = {};  // by slot
  std::vector<EventView> events = {};    // oldest first
};

/// Whether a daemon writes the file.
bool IsWritten(const std::string& path);

/// What to read besides counters.
struct Wanted {
  bool packets = true;  // and scheduling
  bool events = true;
  std::string stream = {};  // this one only; "" for all
};

/// The records of one stream as they are written. One thread at a time.
class PacketTail {
 public:
  /// Begins with the records that are written from now on. A log without the stream, or of another
  /// version, has none until it has it.
  PacketTail(std::string path, std::string stream)
      : path_(std::move(path)), stream_(std::move(stream)) {}

  /// Adds the records that are new; those that could not be read are left out. False when the log
  /// is not written any more: there will be no others.
  bool Read(std::vector<PacketRecord>& records);

 private:
  bool Open();

  const std::string path_;
  const std::string stream_;
  UniqueFd fd_;
  size_t slot_ = 0;  // offset of the stream's
  uint64_t read_ = 0;
};

/// None, with `error` set to the file, the cause and the next step, when it is no flight log of
/// this version.
std::optional<FlightView> ReadFlight(const std::string& path, const Wanted& wanted,
                                     std::string* error);

}  // namespace kvox::flight
