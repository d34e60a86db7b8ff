// The one connection to the co-processor's control device, and the strict command-and-reply
// exchange on it. docs/protocol.md describes the records.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <deque>
#include <string>
#include <vector>

#include "daemon/reply_stream.h"
#include "kvox/common/control_records.h"
#include "kvox/common/mutex.h"
#include "kvox/common/wake_event.h"

namespace kvox {

class ControlChannel {
 public:
  /// Initially closed; opened by Open(), or by a command if it is closed.
  explicit ControlChannel(std::string device_path);
  ~ControlChannel();
  ControlChannel(const ControlChannel&) = delete;
  ControlChannel& operator=(const ControlChannel&) = delete;

  /// Reopens the device; waits about 400 ms for a missing one to appear. Any thread.
  void Open();
  /// Ends the wait of a command as well, which fails. Any thread.
  void Close();
  bool IsOpen() const { return open_.load(std::memory_order_relaxed); }

  /// One command and its reply, which overwrites the record. Opens the device again and repeats the
  /// write, once, when writing fails; waits 500 ms in all for the reply. Returns 0, the reply's
  /// status, -1 or minus errno. Any thread; commands take turns.
  int32_t Exchange(uint16_t opcode, CMD_HDR* record, size_t size);

 private:
  using Clock = std::chrono::steady_clock;
  enum class Wait { kReadable, kQuiet, kHangUp, kClosing, kInterrupted, kFailed };

  class DeviceChange;

  void openKvoxControl() REQUIRES(lock_);
  void CloseLocked() REQUIRES(lock_);
  bool WriteRecord(uint16_t opcode, const CMD_HDR* record, size_t size) REQUIRES(lock_);
  int32_t WaitForReply(uint16_t opcode, CMD_HDR* record, size_t size) REQUIRES(lock_);
  void DropPartial(uint16_t opcode, size_t size) REQUIRES(lock_);
  Wait WaitReadable(Clock::time_point until) REQUIRES(lock_);
  int32_t ReadReplies(uint16_t opcode, size_t size) REQUIRES(lock_);
  bool TakeReply(uint16_t opcode, CMD_HDR* record, size_t size) REQUIRES(lock_);
  void LogStale(uint16_t id, uint16_t opcode) REQUIRES(lock_);

  const std::string device_path_;
  Mutex lock_;  // the control lock: held through the whole wait for a reply
  std::atomic<int> device_changes_ = 0;  // running or waiting; they take priority over commands
  CondVar device_changed_;
  WakeEvent closing_;  // ends the wait for a reply
  std::atomic<bool> open_ = false;
  int fd_ GUARDED_BY(lock_) = -1;
  uint32_t commands_sent_ GUARDED_BY(lock_) = 0;
  ReplyStream stream_ GUARDED_BY(lock_);
  std::deque<std::vector<std::byte>> replies_ GUARDED_BY(lock_);  // read, not examined yet
  uint32_t stale_ GUARDED_BY(lock_) = 0;    // records that were not the present command's reply
  uint32_t in_vain_ GUARDED_BY(lock_) = 0;  // reads in a row that found nothing after all
};

}  // namespace kvox
