// Access to the running simulator: its counters, and injecting faults.
#pragma once

#include <cstdint>
#include <filesystem>
#include <map>
#include <stdexcept>
#include <string>

namespace kvox::campaign {

/// What the simulator counts for a tap.
struct TapStats {
  bool enabled = false;
  int tapout = -1;
  int inject = -1;
  uint32_t block_length = 0;
  uint32_t jitter_buffer = 0;
  uint64_t sent = 0;
  uint64_t exact = 0;
  uint64_t exact_in_row = 0;  // of those that came back, the last ones
  uint64_t silent = 0;
  uint64_t different = 0;
  uint64_t missing = 0;
  uint64_t in_flight = 0;
  uint64_t received = 0;
  uint64_t latency_mean_us = 0;  // of all that came back
};

struct SimStatus {
  std::map<std::string, TapStats> taps;  // by name, "genp.0"
  std::map<int, uint64_t> injects;       // packets that came, by the inject buffer's number
  uint64_t active_faults = 0;            // including those whose time has not come yet
};

/// The simulator does not reply, or refuses.
struct SimError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

/// Throws SimError. Any thread.
class SimControl {
 public:
  explicit SimControl(const std::filesystem::path& devices) : socket_(devices / ".kvosim.ctl") {}

  SimStatus Status() const;
  /// "restart gap=0.5"
  void Fault(const std::string& words) const { Request("fault " + words); }
  /// Brings all nodes back.
  void Restore() const { Request("restore"); }

 private:
  std::string Request(const std::string& line) const;

  const std::filesystem::path socket_;
};

}  // namespace kvox::campaign
