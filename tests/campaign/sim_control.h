// The simulator while it runs: its counters, and faults that it is told to make.
#pragma once

#include <cstdint>
#include <filesystem>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>

namespace kvox::campaign {

/// What the simulator tells of a tap.
struct TapFigures {
  bool enabled = false;
  int tapout = -1;
  int inject = -1;
  uint32_t block_length = 0;
  uint32_t jitter_buffer = 0;
  uint64_t streams = 0;
  uint64_t sent = 0;
  uint64_t exact = 0;
  uint64_t exact_in_row = 0;  // the last ones of those that came back
  uint64_t silent = 0;
  uint64_t different = 0;
  uint64_t missing = 0;
  uint64_t in_flight = 0;
  uint64_t received = 0;
};

struct SimStatus {
  std::map<std::string, TapFigures> taps;  // by "genp.0"
  uint64_t faults_at_work = 0;             // that strike now or whose time has not come
};

/// The simulator does not answer, or refuses.
struct SimError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

/// Throws SimError. Any thread.
class SimControl {
 public:
  explicit SimControl(const std::filesystem::path& devices) : socket_(devices / ".kvosim.ctl") {}

  SimStatus Status() const;
  /// "restart gap=0.5"
  void Fault(const std::string& words) const { Ask("fault " + words); }
  /// Ends every fault and brings all nodes back.
  void Clear() const { Ask("clear"); }

 private:
  std::string Ask(const std::string& line) const;

  const std::filesystem::path socket_;
};

}  // namespace kvox::campaign
