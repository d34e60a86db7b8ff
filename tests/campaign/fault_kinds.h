// The faults that the campaign knows: what the simulator is told, how long it takes, and how soon
// audio has to be exact afterwards.
#pragma once

#include <random>
#include <span>
#include <string>
#include <vector>

#include "tests/campaign/phase.h"

namespace kvox::campaign {

/// Random choices that are the same everywhere for the same seed.
class Dice {
 public:
  explicit Dice(uint64_t seed) : random_(seed) {}

  /// From 0 to `sides` - 1.
  size_t Roll(size_t sides) { return static_cast<size_t>(random_() % sides); }
  /// From `least` to `most` seconds, in steps of a hundredth of the range.
  double Seconds(double least, double most) {
    return least + (most - least) * static_cast<double>(Roll(101)) / 100;
  }
  template <typename Range>
  const auto& Pick(const Range& range) {
    return range[Roll(std::size(range))];
  }

 private:
  std::mt19937_64 random_;
};

enum class FaultGroup { kNodes, kReplies, kPackets, kDevices };

/// One fault as it is made.
struct Injection {
  std::vector<std::string> words;  // a line for the simulator each
  Ms lasts{};                      // at most, from then on
  bool kills = false;              // the simulator, without warning; another one comes after `away`
  Ms away{};
};

struct FaultKind {
  const char* name;
  FaultGroup group;
  Ms recovery;      // from the fault's end until all audio is exact again
  unsigned weight;  // how often it is chosen, by comparison; 0: only when it is its turn
  bool slow;        // takes too long for a short campaign
  Injection (*make)(Dice& dice);
};

std::span<const FaultKind> FaultKinds();

/// Null when there is none of that name.
const FaultKind* FindFaultKind(const std::string& name);

}  // namespace kvox::campaign
