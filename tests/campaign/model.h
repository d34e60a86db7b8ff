// What clients have asked for and the daemon has acknowledged: the graph as it has to be. Pure; one
// thread at a time.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <tuple>

#include "kvox/common/four_cc.h"

namespace kvox::campaign {

inline constexpr int kNone = -1;

struct ProcessorModel {
  FourCc type = 0;
  bool enabled = false;
  int tapout = kNone;
  int inject = kNone;

  bool operator==(const ProcessorModel&) const = default;
};

/// A tap point by core, code and index.
using TapId = std::tuple<int, FourCc, int>;

struct TapModel {
  bool enabled = false;
  int tapout = kNone;
  int inject = kNone;
  std::optional<uint32_t> block_length;  // as far as anybody set it
  std::optional<uint32_t> jitter_buffer;

  bool operator==(const TapModel&) const = default;
};

class Model {
 public:
  // Each notes a command that was acknowledged.
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

  const std::map<FourCc, ProcessorModel>& processors() const { return processors_; }
  const std::map<TapId, TapModel>& taps() const { return taps_; }
  /// Numbers of the buffers that are enabled.
  const std::set<int>& tapouts() const { return tapouts_; }
  const std::set<int>& injects() const { return injects_; }

  /// Whether audio has to flow from the tap through its processor and back.
  bool Flows(const TapId& tap, FourCc processor) const;

 private:
  std::map<FourCc, ProcessorModel> processors_;
  std::map<TapId, TapModel> taps_;
  std::set<int> tapouts_;
  std::set<int> injects_;
};

}  // namespace kvox::campaign
