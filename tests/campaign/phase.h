// Where the campaign stands with its faults, and how long things take on a busy machine.
#pragma once

#include <algorithm>
#include <atomic>
#include <chrono>
#include <thread>

namespace kvox::campaign {

using Clock = std::chrono::steady_clock;
using Ms = std::chrono::milliseconds;

enum class Phase {
  kCalm,       // no fault since the last one was recovered from: nothing may be refused
  kDisturbed,  // a fault is under way: refusals are expected
  kSettling,   // it has ended: whatever was refused is asked for again
};

/// Any thread.
class PhaseClock {
 public:
  void Set(Phase phase) {
    value_.store(value_.load() / kPhases * kPhases + kPhases + Index(phase));
  }
  Phase phase() const { return static_cast<Phase>(value_.load() % kPhases); }
  /// Changes with every change of the phase, and tells the phase.
  unsigned mark() const { return value_.load(); }
  static Phase PhaseOf(unsigned mark) { return static_cast<Phase>(mark % kPhases); }

 private:
  static constexpr unsigned kPhases = 3;
  static unsigned Index(Phase phase) { return static_cast<unsigned>(phase); }

  std::atomic<unsigned> value_ = 0;
};

/// Measures what the machine owes us: a thread that wants to wake up every few milliseconds sums up
/// by how much it came too late. Limits on times grow with it, so that they hold on a busy machine
/// and stay tight on an idle one.
class LoadMeter {
 public:
  LoadMeter();
  ~LoadMeter();
  LoadMeter(const LoadMeter&) = delete;
  LoadMeter& operator=(const LoadMeter&) = delete;

  /// All that was lost so far. Any thread.
  Ms Lost() const { return Ms(lost_us_.load() / 1000); }

  /// What a limit may grow by when `lost_before` was lost as its time began: a chain of threads
  /// waits for a processor several times where ours waits once. It has an end, so that every wait
  /// has one.
  Ms Allowance(Ms lost_before) const {
    return std::min(kThreadsInAChain * (Lost() - lost_before), kMostAllowance);
  }

  /// How often the thread was late by so much that whatever has to be in time cannot have been.
  unsigned Stalls() const { return stalls_.load(); }

  /// The share of the time that was lost so far.
  double LostShare() const;

 private:
  static constexpr int kThreadsInAChain = 4;
  static constexpr Ms kMostAllowance{20000};

  void Run();

  const Clock::time_point begin_ = Clock::now();
  std::atomic<int64_t> lost_us_ = 0;
  std::atomic<unsigned> stalls_ = 0;
  std::atomic<bool> stopping_ = false;
  std::thread thread_;
};

}  // namespace kvox::campaign
