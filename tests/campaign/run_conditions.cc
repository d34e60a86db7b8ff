#include "tests/campaign/run_conditions.h"

namespace kvox::campaign {
namespace {

constexpr Ms kInterval{5};
constexpr std::chrono::microseconds kOrdinaryLag{1000};  // not worth counting
constexpr Ms kStall{200};

}  // namespace

double LagMeter::Share() const {
  return std::chrono::duration<double>(Total()) /
         std::chrono::duration<double>(Clock::now() - begin_);
}

void LagMeter::Run(const std::stop_token& stop) {
  while (!stop.stop_requested()) {
    const auto begin = Clock::now();
    std::this_thread::sleep_for(kInterval);
    const auto lag =
        std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - begin - kInterval);
    if (lag > kOrdinaryLag) total_us_ += lag.count();
    if (lag > kStall) ++stalls_;
  }
}

}  // namespace kvox::campaign
