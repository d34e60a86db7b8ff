// The expected graph: what clients have requested and the daemon has acknowledged.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <vector>

#include "kvox/common/four_cc.h"
#include "tests/campaign/streams.h"

namespace kvox::campaign {

inline constexpr int kNone = -1;

struct ExpectedProcessor {
  FourCc type = 0;
  bool enabled = false;
  int tapout = kNone;
  int inject = kNone;
};

struct ExpectedTap {
  bool enabled = false;
  int tapout = kNone;
  int inject = kNone;
  std::optional<uint32_t> block_length;  // none: never set
  std::optional<uint32_t> jitter_buffer;

  bool operator==(const ExpectedTap&) const = default;
};

/// One thread at a time.
class ExpectedGraph {
 public:
  // Each follows a command that was acknowledged.
  void NewProcessor(FourCc id, FourCc type);
  void DeleteProcessor(FourCc id);
  void ProcessorEnable(FourCc id, bool enable);
  void Connect(FourCc id, int tapout, int inject);
  void ConnectTap(const TapId& tap, int tapout, int inject);
  void TapEnable(const TapId& tap, bool enable);
  void TapSetBlockLength(const TapId& tap, uint32_t frames);
  void TapSetJitterBuffer(const TapId& tap, uint32_t size);
  void StartIo(int tapout);
  void StopIo(int tapout);
  /// MIC_IN, SPEAKER_OUT or AREL_TELE.
  void EnableUseCase(UseCase use_case, bool enable);

  const std::map<FourCc, ExpectedProcessor>& processors() const { return processors_; }
  const std::map<TapId, ExpectedTap>& taps() const { return taps_; }
  /// Numbers of the enabled buffers.
  const std::set<int>& tapouts() const { return tapouts_; }
  const std::set<int>& injects() const { return injects_; }

  /// Of a stream; as it was never set up, when it was not.
  ExpectedProcessor ProcessorOf(const Stream& stream) const;
  ExpectedTap TapOf(const Stream& stream) const;
  /// The tap point whose packets come on a tap-out buffer: of those that are on, the one that was
  /// bound last. None if the buffer is off.
  std::optional<TapId> SourceOf(int tapout) const;
  /// Whether audio has to flow from the tap through its processor and back.
  bool Flows(const Stream& stream) const;

 private:
  std::map<FourCc, ExpectedProcessor> processors_;
  std::map<TapId, ExpectedTap> taps_;
  std::vector<TapId> bound_;  // in the order of their last bindings
  std::set<int> tapouts_;
  std::set<int> injects_;
};

}  // namespace kvox::campaign
