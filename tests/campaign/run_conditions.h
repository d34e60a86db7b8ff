// Conditions that the checks of a run depend on: whether a fault is active, and how late this
// machine wakes threads.
#pragma once

#include <algorithm>
#include <atomic>
#include <chrono>
#include <thread>

namespace kvox::campaign {

using Clock = std::chrono::steady_clock;
using Ms = std::chrono::milliseconds;

enum class FaultState {
  kNone,      // the last fault has been recovered from: nothing may be refused
  kActive,    // refusals are expected
  kSettling,  // the fault has ended: clients retry what was refused
};

/// Any thread.
class FaultClock {
 public:
  /// One stretch of time in one state. No two are equal.
  using Epoch = unsigned;

  void Enter(FaultState state) {
    epoch_ = epoch_ / kStates * kStates + kStates + static_cast<Epoch>(state);
  }
  Epoch epoch() const { return epoch_; }
  static FaultState StateIn(Epoch epoch) { return static_cast<FaultState>(epoch % kStates); }

 private:
  static constexpr Epoch kStates = 3;

  std::atomic<Epoch> epoch_ = 0;  // Enter() has one caller
};

/// Measures scheduling delays: a thread that wakes up every few milliseconds sums up its lateness.
/// Time limits grow with that sum, so that they hold on a busy machine and stay tight on an idle
/// one. Any thread.
class LagMeter {
 public:
  LagMeter() : thread_([this](const std::stop_token& stop) { Run(stop); }) {}

  Ms Total() const { return Ms(total_us_.load() / 1000); }

  /// By how much a limit may grow when Total() was `total_before` as its time began: a chain of
  /// threads waits for a CPU several times where this one waits once. Bounded, so that every wait
  /// ends.
  Ms Allowance(Ms total_before) const {
    return std::min(kThreadsInAChain * (Total() - total_before), kMostAllowance);
  }

  /// How often the thread was so late that packets cannot have been in time.
  unsigned Stalls() const { return stalls_; }

  /// Total() as a share of the time since the start.
  double Share() const {
    return std::chrono::duration<double>(Total()) /
           std::chrono::duration<double>(Clock::now() - begin_);
  }

 private:
  static constexpr int kThreadsInAChain = 4;
  static constexpr Ms kMostAllowance{20000};

  static constexpr Ms kInterval{5};
  static constexpr std::chrono::microseconds kOrdinaryLag{1000};  // not worth counting
  static constexpr Ms kStall{200};

  void Run(const std::stop_token& stop) {
    while (!stop.stop_requested()) {
      const auto begin = Clock::now();
      std::this_thread::sleep_for(kInterval);
      const auto lag =
          std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - begin - kInterval);
      if (lag > kOrdinaryLag) total_us_ += lag.count();
      if (lag > kStall) ++stalls_;
    }
  }

  const Clock::time_point begin_ = Clock::now();
  std::atomic<int64_t> total_us_ = 0;
  std::atomic<unsigned> stalls_ = 0;
  std::jthread thread_;
};

}  // namespace kvox::campaign
