// Scenario files: accepted ones satisfy everything that the simulator relies on, and errors name
// line, key and expectation.

#include "sim/scenario/scenario.h"

#include <fuzzer/FuzzedDataProvider.h>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <set>
#include <stdexcept>
#include <tuple>

#include "fuzz/check.h"
#include "kvox/common/kvox_packet.h"

namespace kvox::fuzz {
namespace {

using sim::FaultConfig;
using sim::Scenario;
using sim::SinkKind;
using sim::SourceConfig;
using sim::SourceKind;
using sim::TapConfig;

constexpr char kOrigin[] = "s.toml";
constexpr char kDirectory[] = "scenarios";

void CheckNumbers(const std::vector<uint8_t>& numbers, int most) {
  const std::set<uint8_t> different(numbers.begin(), numbers.end());
  Check(different.size() == numbers.size(), "no number is listed twice");
  Check(numbers.empty() || *different.rbegin() <= most, "numbers are in their range");
}

bool InRange(double value, double low, double high) {
  return std::isfinite(value) && value >= low && value <= high;
}

void CheckSource(const SourceConfig& source, uint32_t rate) {
  const double highest = rate / 2.0;
  Check(InRange(source.level, -144, 0), "a level is in its range");
  Check(InRange(source.seconds, 0.001, 3600), "a sweep has its time");
  if (source.kind == SourceKind::kSine) {
    Check(InRange(source.frequency, 0, highest), "a sine can be sampled");
  }
  if (source.kind == SourceKind::kSweep) {
    Check(InRange(source.from, 0, highest) && InRange(source.to, 0, highest),
          "a sweep can be sampled");
  }
  Check((source.kind == SourceKind::kWav) == !source.file.empty(), "a WAV source has its file");
}

void CheckTap(const TapConfig& tap, const Scenario& scenario) {
  const KvoxTapFormat& format = tap.format;
  Check(std::ranges::count(scenario.cores, tap.core) == 1, "a tap is on a core of the scenario");
  Check(tap.name != 0, "a tap has a name");
  Check(format.sample_rate >= 8000 && format.sample_rate <= 192000, "a rate is in its range");
  Check(format.channels >= 1 && format.channels <= 32, "there are channels, but not too many");
  Check(format.data_format < kDataFormatCount, "a format is known");
  Check(!sim::BlockProblem(format, tap.block_length), "a block fits into a packet");
  const uint64_t bytes = uint64_t{tap.block_length} * FrameSize(format);
  Check(bytes > 0 && bytes <= kPacketMaxPayload && bytes % 8 == 0, "a packet can be read");
  CheckSource(tap.source, format.sample_rate);
  Check((tap.sink.kind == SinkKind::kWav) == !tap.sink.file.empty(), "a WAV sink has its file");
}

void CheckFault(const FaultConfig& fault) {
  const double times[] = {fault.at,    fault.seconds.value_or(0),    fault.gap, fault.spacing,
                          fault.delay, fault.missing_for.value_or(0)};
  for (const double time : times) Check(InRange(time, 0, 1e6), "a fault's times have an end");
  Check(InRange(fault.probability.value_or(0), 0, 1), "a probability is one");
  Check(fault.count.value_or(1) > 0 && fault.times > 0, "a fault strikes at all");
  Check(fault.bytes <= kPacketMaxSize && fault.packets <= 1'000'000, "a fault keeps in bounds");
}

void CheckScenario(const Scenario& scenario) {
  CheckNumbers(scenario.cores, 255);
  CheckNumbers(scenario.tapouts, 254);
  CheckNumbers(scenario.injects, 254);
  Check(scenario.faults.size() <= sim::kMaxFaults, "there are not too many faults");
  for (const FaultConfig& fault : scenario.faults) CheckFault(fault);
  std::set<std::tuple<uint8_t, FourCc, uint8_t>> taps;
  std::set<std::filesystem::path> sinks;
  for (const TapConfig& tap : scenario.taps) {
    CheckTap(tap, scenario);
    Check(taps.emplace(tap.core, tap.name, tap.index).second, "no two taps have the same address");
    if (tap.sink.kind == SinkKind::kNone) continue;
    Check(sinks.insert(tap.sink.file.lexically_normal()).second, "no two sinks share a file");
  }
}

/// "s.toml:LINE: KEY: PROBLEM; expected ..." or the like.
void CheckError(std::string_view error, std::string_view text) {
  const std::string_view origin = kOrigin;
  Check(error.starts_with(origin) && error.size() > origin.size() && error[origin.size()] == ':',
        "an error begins with the file's name");
  error.remove_prefix(origin.size() + 1);
  int64_t line = 0;
  const auto [end, fault] = std::from_chars(error.data(), error.data() + error.size(), line);
  const auto lines = 1 + std::ranges::count(text, '\n');
  Check(fault == std::errc() && line >= 1 && line <= lines, "an error names a line of the file");
  error.remove_prefix(static_cast<size_t>(end - error.data()));
  Check(error.starts_with(": ") && error.find(": ", 2) != error.npos, "an error names the key");
  Check(error.find("expected") != error.npos || error.find("cannot") != error.npos,
        "an error names what is expected");
}

}  // namespace
}  // namespace kvox::fuzz

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace kvox::fuzz;
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  try {
    CheckScenario(kvox::sim::ParseScenario(text, kOrigin, kDirectory));
  } catch (const std::invalid_argument& error) {
    CheckError(error.what(), text);
  }
  return 0;
}
