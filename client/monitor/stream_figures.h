// What top shows of a buffer from the flight log: losses, lateness, jitter and load.
#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <string>

#include "kvox/flight/reader.h"

namespace kvox::client {

struct StreamFigures {
  uint64_t lost = 0;  // since the daemon's start, as what follows
  uint64_t late = 0;
  bool fresh = false;                    // something was lost during the last ten refreshes
  std::optional<double> jitter_ms = {};  // what 99 % of the arrivals stay within, lately
  std::optional<double> busy_us = {};    // processors and writes, average of a packet, lately
};

/// Compares a log with itself ten refreshes ago.
class FigureHistory {
 public:
  static constexpr size_t kPolls = 10;

  /// By buffer.
  std::map<std::string, StreamFigures> Add(const flight::FlightView& now);

 private:
  struct Counters {
    uint64_t lost = 0;
    uint64_t late = 0;
    flight::Distribution arrival_error = {};
    flight::Distribution processing = {};
    flight::Distribution writing = {};
  };
  using Poll = std::map<std::string, Counters>;
  static Poll CountersOf(const flight::FlightView& flight);

  uint64_t started_ns_ = 0;  // of the daemon
  std::deque<Poll> polls_;
};

}  // namespace kvox::client
