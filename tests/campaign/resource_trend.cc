#include "tests/campaign/resource_trend.h"

#include <fmt/format.h>

namespace kvox::campaign {
namespace {

// What may grow from the end of the warm-up on, by the robust slope. Less than one: a descriptor or
// a thread that is lost once at half time shows as one.
constexpr double kCountRise = 0.5;
constexpr double kMemoryRiseKib = 1024;
constexpr double kMemoryRiseShare = 0.1;

/// With fewer samples one that the allocator happens to keep more in decides.
constexpr size_t kMemorySamples = 20;

struct Figure {
  const char* name;
  double (*value)(const ResourceUsage&);
  bool is_memory;
};

constexpr Figure kFigures[] = {
    {"descriptors", [](const ResourceUsage& r) { return static_cast<double>(r.descriptors); },
     false},
    {"threads", [](const ResourceUsage& r) { return static_cast<double>(r.threads); }, false},
    {"KiB of memory", [](const ResourceUsage& r) { return static_cast<double>(r.memory_kib); },
     true},
};

}  // namespace

bool MemoryIsMeasurable() {
#if defined(KVOX_SANITIZED)
  return false;
#else
  return true;
#endif
}

void ResourceTrend::Judge(double warm_up_s, Findings& findings) const {
  for (const Figure& figure : kFigures) {
    std::vector<Sample> judged;
    for (const auto& [seconds, resources] : samples_) {
      if (seconds >= warm_up_s) judged.push_back({seconds, figure.value(resources)});
    }
    if (judged.empty()) return;
    if (figure.is_memory && (!MemoryIsMeasurable() || judged.size() < kMemorySamples)) {
      fmt::print("trend of {}: not judged\n", figure.name);
      continue;
    }
    const double limit =
        figure.is_memory ? kMemoryRiseKib + kMemoryRiseShare * judged.front().value : kCountRise;
    const double rise = RobustRise(judged);
    fmt::print(
        "trend of {}: {:+.2f} over {} samples after {:.0f} s of warm-up; less than {:.1f} "
        "is allowed\n",
        figure.name, rise, judged.size(), warm_up_s, limit);
    if (rise >= limit)
      findings.Add("{} grow by {:.2f}, less than {:.1f} is allowed", figure.name, rise, limit);
  }
}

}  // namespace kvox::campaign
