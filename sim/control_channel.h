// The control device: a pseudo-terminal in raw mode, whose other end a daemon opens. One thread,
// that of the event loop.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "sim/control_point.h"
#include "sim/event.h"

namespace kvox::sim {

class ControlChannel {
 public:
  /// `on_commands` is called after commands were answered. Null with the reason in `error` when
  /// there is no pseudo-terminal to be had.
  static std::unique_ptr<ControlChannel> Create(event_base* base, ControlPoint& control,
                                                std::function<void()> on_commands,
                                                std::string& error);
  ~ControlChannel();
  ControlChannel(const ControlChannel&) = delete;
  ControlChannel& operator=(const ControlChannel&) = delete;

  /// What the daemon opens.
  const std::string& slave_path() const { return slave_path_; }
  uint64_t junk_bytes() const { return splitter_.junk_bytes(); }
  uint64_t replies_dropped() const { return replies_dropped_; }

 private:
  ControlChannel(event_base* base, int master, int slave, std::string slave_path,
                 ControlPoint& control, std::function<void()> on_commands);
  void Read();
  void GiveUpPartial();
  void Send(std::span<const std::byte> reply);
  void Flush();

  const int master_;
  const int slave_;  // held open, so that a daemon that closes its end is no hang-up
  const std::string slave_path_;
  const std::function<void()> on_commands_;
  RecordSplitter splitter_;
  std::deque<std::vector<std::byte>> replies_;  // that the terminal has no room for yet
  uint64_t replies_dropped_ = 0;
  Event readable_;
  Event writable_;
  Event partial_timeout_;
};

}  // namespace kvox::sim
