// The faults that the simulator can inject: kinds and parameters. docs/simulator.md lists kinds and
// keys.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace kvox::sim {

enum class FaultGroup {
  kNodes,    // device nodes go and come
  kReplies,  // to control commands
  kPackets,  // of a tap
  kDevices,  // whose node stays
};

enum class FaultKind : uint8_t {
  kRestart,
  kFlap,
  kNodeGone,
  kReplyLate,
  kReplyLost,
  kReplyShort,
  kReplyOpcode,
  kReplyStale,
  kReplyStatus,
  kPacketEarly,
  kPacketLate,
  kPacketBurst,
  kPacketDrop,
  kPacketDuplicate,
  kPacketCut,
  kPacketJunk,
  kPacketMagic,
  kPacketVersion,
  kPacketSize,
  kPacketNumber,
  kPacketFormat,
  kTapoutHangup,
  kTapoutError,
  kInjectStall,
  kInjectRefuse,
};
inline constexpr size_t kFaultKinds = static_cast<size_t>(FaultKind::kInjectRefuse) + 1;

struct FaultDefaults {
  double delay = 0;
  uint32_t packets = 0;
  uint32_t bytes = 0;
};

struct FaultKindRow {
  FaultKind kind;
  const char* name;
  FaultGroup group;
  std::string_view keys;  // besides those of its group, separated by blanks
  const char* help;       // what happens, and the keys as users write them
  FaultDefaults defaults = {};
};

/// One row a kind.
std::span<const FaultKindRow, kFaultKinds> FaultKinds();
const FaultKindRow& RowOf(FaultKind kind);

/// Faults that can wait or be at work at a time.
inline constexpr size_t kMaxFaults = 64;

/// The order in which nodes come back.
enum class NodeOrder { kUsual, kReverse, kShuffle };

/// One requested fault. Times are in seconds; which fields are used depends on the kind.
struct FaultConfig {
  FaultKind kind = FaultKind::kRestart;

  // When it strikes.
  double at = 0;                           // since the simulator's start
  std::optional<uint64_t> after = {};      // packets or commands that pass first
  std::optional<double> probability = {};  // for each packet or command
  uint64_t seed = 1;
  std::optional<uint64_t> count = {};  // without it: one, or all while `seconds` last
  std::optional<double> seconds = {};  // how long it lasts; without it: see the kind

  // What it strikes.
  std::string tap = {};     // "genp.0"; empty: every tap
  std::string device = {};  // "tapout0"
  uint16_t opcode = 0;      // of commands; 0: all

  // How.
  double gap = 0.5;
  NodeOrder order = NodeOrder::kUsual;
  double spacing = 0;
  std::string missing = {};  // device that stays away
  std::optional<double> missing_for = {};
  uint32_t times = 1;
  double delay = 0;
  int16_t status = -5;
  bool replace = false;  // a stale reply comes instead of the correct one, not before it
  bool torn = false;     // the size field of a short reply is that of a whole one
  uint32_t packets = 0;
  uint32_t bytes = 0;
  uint8_t channels = 0;  // 0: any number that the tap does not have
};

/// Whether a fault runs by the clock once it has begun, rather than striking packets or commands.
constexpr bool IsTimed(FaultGroup group) {
  return group == FaultGroup::kNodes || group == FaultGroup::kDevices;
}

/// What faults can strike in a scenario.
struct FaultTargets {
  std::vector<std::string> taps;     // "imic.0"
  std::vector<std::string> devices;  // "kvo", "control", "inject0", "tapout0": as they are created
};

/// Reads a fault from words as `kvosim ctl fault` takes them: the kind, then KEY=VALUE. Throws
/// std::invalid_argument("KEY: what is wrong; what is expected").
FaultConfig ParseFault(std::span<const std::string> words, const FaultTargets& targets);

}  // namespace kvox::sim
