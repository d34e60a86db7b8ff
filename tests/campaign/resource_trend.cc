#include "tests/campaign/resource_trend.h"

#include <fmt/format.h>

#include <algorithm>

namespace kvox::campaign {
namespace {

// The allowed growth after the warm-up. Less than one: a descriptor or thread lost once at half
// time shows as one.
constexpr double kCountRise = 0.5;
constexpr double kMemoryRiseKib = 1024;
constexpr double kMemoryRiseShare = 0.1;

/// With fewer samples, a single one in which the allocator happens to keep more would decide.
constexpr size_t kMemorySamples = 20;

constexpr struct {
  const char* name;
  double (*value)(const ResourceUsage&);
  bool is_memory;
} kResources[] = {
    {"descriptors", [](auto& usage) { return static_cast<double>(usage.descriptors); }, false},
    {"threads", [](auto& usage) { return static_cast<double>(usage.threads); }, false},
    {"KiB of memory", [](auto& usage) { return static_cast<double>(usage.memory_kib); }, true},
};

}  // namespace

double RobustRise(const std::vector<Sample>& samples) {
  std::vector<double> slopes;
  for (size_t i = 0; i < samples.size(); ++i) {
    for (size_t j = i + 1; j < samples.size(); ++j) {
      const double seconds = samples[j].seconds - samples[i].seconds;
      if (seconds > 0) slopes.push_back((samples[j].value - samples[i].value) / seconds);
    }
  }
  if (slopes.empty()) return 0;
  const auto middle = slopes.begin() + static_cast<std::ptrdiff_t>(slopes.size() / 2);
  std::nth_element(slopes.begin(), middle, slopes.end());
  return *middle * (samples.back().seconds - samples.front().seconds);
}

bool MemoryIsMeasurable() {
#if defined(KVOX_SANITIZED)
  return false;
#else
  return true;
#endif
}

void ResourceTrend::Judge(double warm_up_s, FailureLog& failures) const {
  for (const auto& resource : kResources) {
    std::vector<Sample> judged;
    for (const auto& [seconds, usage] : samples_) {
      if (seconds >= warm_up_s) judged.push_back({seconds, resource.value(usage)});
    }
    if (judged.empty()) return;
    if (resource.is_memory && (!MemoryIsMeasurable() || judged.size() < kMemorySamples)) {
      fmt::print("trend of {}: not judged\n", resource.name);
      continue;
    }
    const double limit =
        resource.is_memory ? kMemoryRiseKib + kMemoryRiseShare * judged.front().value : kCountRise;
    const double rise = RobustRise(judged);
    fmt::print("trend of {}: {:+.2f} in {} samples after {:.0f} s of warm-up; limit {:.1f}\n",
               resource.name, rise, judged.size(), warm_up_s, limit);
    if (rise >= limit)
      failures.Add("{} grow by {:.2f}; the limit is {:.1f}", resource.name, rise, limit);
  }
}

}  // namespace kvox::campaign
