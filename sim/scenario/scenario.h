// A scenario: the co-processor to simulate. Read from a TOML file whose keys docs/simulator.md
// lists.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "kvox/common/four_cc.h"
#include "kvox/common/tap_format.h"
#include "sim/faults/fault.h"

namespace kvox::sim {

enum class SourceKind { kSilence, kSine, kSweep, kNoise, kWav, kLoop };
enum class SinkKind { kNone, kWav };

/// The audio that a tap delivers. Which fields are used depends on the kind.
struct SourceConfig {
  SourceKind kind = SourceKind::kSilence;
  double level = -12;       // dB below full scale, of the peaks
  double frequency = 1000;  // Hz
  double from = 20;         // Hz
  double to = 20000;        // Hz
  double seconds = 10;      // of one sweep
  uint64_t seed = 1;
  std::filesystem::path file = {};
  bool repeat = false;
  std::string where = {};  // "FILE:LINE: KEY" of `file`, for messages about it
};

/// Where a tap's returning audio goes.
struct SinkConfig {
  SinkKind kind = SinkKind::kNone;
  std::filesystem::path file = {};
  std::string where = {};
};

struct TapConfig {
  FourCc name = 0;
  uint8_t index = 0;
  uint8_t core = 0;
  KvoxTapFormat format = {};
  uint32_t block_length = 480;  // frames
  SourceConfig source = {};
  SinkConfig sink = {};
};

struct Scenario {
  std::vector<uint8_t> cores;
  std::vector<uint8_t> tapouts;  // device numbers
  std::vector<uint8_t> injects;
  std::vector<TapConfig> taps;
  std::vector<FaultConfig> faults;
};

FaultTargets TargetsOf(const Scenario& scenario);

/// "imic.0"
std::string DisplayName(const TapConfig& tap);

/// Why packets cannot carry blocks of this length in this format, or nothing when they can.
std::optional<std::string> BlockProblem(const KvoxTapFormat& format, uint64_t block_length);

/// Reads a scenario. `origin` names it in messages; relative paths in it start from `directory`.
/// Throws std::invalid_argument("FILE:LINE: KEY: what is wrong; what is expected") for the first
/// fault. Files that it names are not opened yet.
Scenario ParseScenario(std::string_view text, const std::string& origin,
                       const std::filesystem::path& directory);

/// The same for a file on disk.
Scenario LoadScenario(const std::filesystem::path& file);

/// The built-in scenario, as TOML text: a phone.
extern const std::string_view kDefaultScenario;

}  // namespace kvox::sim
