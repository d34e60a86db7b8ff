// The control device: a pseudo-terminal in raw mode, whose other end a daemon opens. Belongs to the
// event loop's thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "sim/coprocessor/command_handler.h"
#include "sim/devices/raw_terminal.h"
#include "sim/devices/record_splitter.h"
#include "sim/event.h"
#include "sim/faults/fault_plan.h"

namespace kvox::sim {

class ControlChannel {
 public:
  /// `on_commands` is called after commands were carried out. The others outlive the channel.
  ControlChannel(event_base* base, CommandHandler& handler, FaultPlan& plan,
                 std::function<void()> on_commands);
  ~ControlChannel() { Close(); }
  ControlChannel(const ControlChannel&) = delete;
  ControlChannel& operator=(const ControlChannel&) = delete;

  /// Makes the pseudo-terminal and returns the path that the daemon opens. Throws
  /// std::runtime_error when there is none.
  std::string Open();
  /// Hangs up on a daemon that has it open. Does nothing when it is closed.
  void Close();

  uint64_t junk_bytes() const { return splitter_.junk_bytes(); }
  uint64_t replies_dropped() const { return replies_dropped_; }

 private:
  void Read();
  void GiveUpPartial();
  void Handle(std::span<std::byte> record);
  void Flush();

  event_base* const base_;
  CommandHandler& handler_;
  FaultPlan& plan_;
  const std::function<void()> on_commands_;
  RawTerminal terminal_;
  RecordSplitter splitter_;
  std::vector<std::byte> last_reply_;  // before faults changed it
  /// Replies to send, by the time when they are due. The first may be sent in part.
  std::multimap<uint64_t, std::vector<std::byte>> replies_;
  uint64_t replies_dropped_ = 0;
  std::unique_ptr<Event> readable_;  // there while it is open
  std::unique_ptr<Event> writable_;
  Event partial_timeout_;
  Event due_;
};

}  // namespace kvox::sim
