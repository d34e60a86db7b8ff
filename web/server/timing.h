// When the packets of a stream came, from the flight log.
#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "kvox/flight/reader.h"

namespace kvox::web {

using Json = nlohmann::ordered_json;

/// What has to be added to a time of the packet clock for the wall clock.
double WallOffsetMs();

/// One thread.
class Timing {
 public:
  explicit Timing(std::string stream) : stream_(std::move(stream)) {}

  /// A row for each packet that is new since the last call; at first, for all that the log has.
  /// Goes on with another daemon's log.
  Json Read();

  /// Rows of [number, time in ms, error in us, loss or null, missing, reason or null, dispatch in
  /// us, client in us]: when it arrived on the packet clock, how much later than its number and the
  /// period let expect, why it was lost, how many packets are missing before it and why, how long
  /// until it was dispatched, and how long a client took of that. Pure.
  Json RowsOf(const std::vector<flight::PacketRecord>& records);

 private:
  const std::string stream_;
  std::optional<flight::PacketTail> tail_;
  std::optional<flight::PacketRecord> last_;
};

}  // namespace kvox::web
