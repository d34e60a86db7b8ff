// Plays a script once: makes its nodes, delivers its audio, replies to commands. Event loop's
// thread.
#pragma once

#include <cstdint>
#include <exception>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "sim/devices/device_directory.h"
#include "sim/devices/packet_port.h"
#include "sim/event.h"
#include "sim/recording/comparison.h"
#include "sim/recording/recorded_replies.h"
#include "sim/recording/script.h"

namespace kvox::sim {

class Player {
 public:
  /// Begins in the loop. `on_end` is called once: soon after the last step, or when a node cannot
  /// be made. `base` and `script` outlive it. Throws std::runtime_error when the directory cannot
  /// be used.
  Player(event_base* base, const std::filesystem::path& directory, const Script& script,
         double speed, std::function<void()> on_end);
  ~Player();

  /// What went otherwise than in the recording.
  struct Counts {
    size_t missed = 0;    // commands that did not come
    size_t modelled = 0;  // commands that the recording does not have
    size_t unheard = 0;   // deliveries that had no reader, or no room
    size_t late = 0;      // steps: the machine was busy
  };

  /// Ends it. Throws what has ended it early.
  Sent Finish(Counts& counts);

 private:
  class Control;
  class InjectSink;
  struct TapOut {
    FifoWriter pipe;
    bool absent = false;  // no reader has come in time
  };

  int64_t TimeOf(uint64_t at_ns) const;
  void Play();
  void PlayWhatIsDue();
  bool IsReady(const Step& step);
  bool IsSilent(const Step& step) const;
  void GiveUp(const Step& step);
  void Do(const Step& step);
  void Deliver(const Step& step);
  void SetRights(const Step& step);
  void Create(const std::string& node);
  void Remove(const std::string& node);
  void OnMatch(size_t exchange);

  event_base* const base_;
  DeviceDirectory directory_;
  const Script& script_;
  const double speed_;
  const std::function<void()> on_end_;
  RecordedReplies replies_;
  int64_t start_ns_;  // when the recording would have begun
  size_t next_ = 0;
  bool ended_ = false;
  int64_t waiting_since_ns_ = 0;
  size_t heard_at_give_up_ = SIZE_MAX;  // commands
  Counts counts_;
  std::exception_ptr error_;
  std::unique_ptr<Control> control_;
  std::map<std::string, TapOut> tapouts_;
  std::map<std::string, std::vector<Piece>> injected_;
  std::map<std::string, std::unique_ptr<InjectSink>> injects_;
  Event next_due_;
};

}  // namespace kvox::sim
