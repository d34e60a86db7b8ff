// The faults that the campaign can inject: the commands for the simulator, how long they last, and
// how soon audio has to be exact afterwards.
#pragma once

#include <random>
#include <span>
#include <string>
#include <vector>

#include "tests/campaign/run_conditions.h"

namespace kvox::campaign {

/// The same choices for the same seed on every machine.
class RandomSource {
 public:
  explicit RandomSource(uint64_t seed) : random_(seed) {}

  /// From 0 to `count` - 1.
  size_t Below(size_t count) { return static_cast<size_t>(random_() % count); }
  /// From `least` to `most` seconds, in steps of a hundredth of the range.
  double Seconds(double least, double most) {
    return least + (most - least) * static_cast<double>(Below(101)) / 100;
  }
  template <typename Range>
  const auto& Pick(const Range& range) {
    return range[Below(std::size(range))];
  }

 private:
  std::mt19937_64 random_;
};

class ClientPart;

enum class FaultGroup { kNodes, kReplies, kPackets, kDevices, kBystanders };

/// From a fault's end until all audio is exact again.
Ms RecoveryLimitAfter(FaultGroup group);

/// Whether the faults concern no stream that no client changes: then none of its packets is lost.
bool KeepsAudio(FaultGroup group);

/// One fault as it is made.
struct Injection {
  std::vector<std::string> commands = {};  // for the simulator
  Ms lasts{};                              // at most, from then on
  bool kills = false;                      // the simulator; another one starts after `away`
  Ms away{};
  /// What a client does before, during or after the simulator's part, which it starts.
  void (ClientPart::*client)(const Injection&) = nullptr;
  size_t choice = 0;  // of what the client does
};

/// The last words of a command that concerns the packets of one tap point.
inline constexpr char kOfTap[] = " tap=";

struct FaultKind {
  const char* name;
  FaultGroup group;
  unsigned weight;  // how often it is chosen, relative to others; 0: only when it is its turn
  bool slow;        // takes too long for a short campaign
  Injection (*make)(RandomSource& random, const std::string& name);
  bool alone = false;  // never together with others
};

std::span<const FaultKind> FaultKinds();

/// Null when there is none of that name.
const FaultKind* FindFaultKind(const std::string& name);

}  // namespace kvox::campaign
