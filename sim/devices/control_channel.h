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

#include "sim/coprocessor/control_point.h"
#include "sim/devices/control_exchange.h"
#include "sim/event.h"

namespace kvox::sim {

class ControlChannel {
 public:
  /// `on_commands` is called after commands were answered; `exchange` outlives the channel.
  ControlChannel(event_base* base, ControlExchange& exchange, std::function<void()> on_commands);
  ~ControlChannel() { Close(); }
  ControlChannel(const ControlChannel&) = delete;
  ControlChannel& operator=(const ControlChannel&) = delete;

  /// Makes the pseudo-terminal. False with the reason in `error` when there is none to be had.
  bool Open(std::string& error);
  /// Hangs up on a daemon that has it open. Nothing happens when it is closed.
  void Close();

  /// What the daemon opens.
  const std::string& slave_path() const { return slave_path_; }
  uint64_t junk_bytes() const { return splitter_.junk_bytes(); }
  uint64_t replies_dropped() const { return replies_dropped_; }

 private:
  void Read();
  void GiveUpPartial();
  void Take(std::span<std::byte> record);
  void Send(std::vector<std::byte> reply);
  void SendDelayed();
  void Flush();

  struct Delayed {
    uint64_t due_ns;
    std::vector<std::byte> reply;
  };

  event_base* const base_;
  ControlExchange& exchange_;
  const std::function<void()> on_commands_;
  int master_ = -1;
  int slave_ = -1;  // held open, so that a daemon that closes its end is no hang-up
  std::string slave_path_;
  RecordSplitter splitter_;
  std::deque<std::vector<std::byte>> replies_;  // that the terminal has no room for yet
  std::vector<Delayed> delayed_;
  uint64_t replies_dropped_ = 0;
  std::unique_ptr<Event> readable_;  // there while it is open
  std::unique_ptr<Event> writable_;
  Event partial_timeout_;
  Event delay_;
};

}  // namespace kvox::sim
