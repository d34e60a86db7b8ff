#include "tests/campaign/phase.h"

namespace kvox::campaign {
namespace {

constexpr Ms kNap{5};
constexpr std::chrono::microseconds kOrdinary{1000};  // late by this much is nobody's fault
constexpr Ms kStall{200};

}  // namespace

LoadMeter::LoadMeter() : thread_([this] { Run(); }) {}

LoadMeter::~LoadMeter() {
  stopping_ = true;
  thread_.join();
}

double LoadMeter::LostShare() const {
  return std::chrono::duration<double>(Lost()) /
         std::chrono::duration<double>(Clock::now() - begin_);
}

void LoadMeter::Run() {
  while (!stopping_) {
    const auto begin = Clock::now();
    std::this_thread::sleep_for(kNap);
    const auto late =
        std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - begin - kNap);
    if (late > kOrdinary) lost_us_ += late.count();
    if (late > kStall) ++stalls_;
  }
}

}  // namespace kvox::campaign
