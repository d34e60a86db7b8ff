// The daemon's side of the flight log: the slots of its streams, and the events of all threads but
// the I/O threads, which write with StreamLog and InjectLog.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <string_view>

#include "kvox/common/mutex.h"
#include "kvox/flight/layout.h"
#include "kvox/flight/mapping.h"
#include "kvox/flight/stream_log.h"

namespace kvox::flight {

/// While one exists, the events of this thread are done for that process. 0: for the daemon itself.
class CallerScope {
 public:
  explicit CallerScope(uint32_t pid);
  ~CallerScope();
  CallerScope(const CallerScope&) = delete;
  CallerScope& operator=(const CallerScope&) = delete;

 private:
  const uint32_t before_;
};

struct Event {
  EventKind kind;
  std::string_view subject;
  std::string_view text = {};
  int32_t status = 0;
  uint64_t duration_ns = 0;
};

/// Any thread but an I/O thread.
class FlightLog {
 public:
  /// Writes to memory until it is moved to a file.
  FlightLog() = default;
  FlightLog(const FlightLog&) = delete;
  FlightLog& operator=(const FlightLog&) = delete;

  /// Writes to a new file in `directory`. See Mapping. Call this before any other function.
  std::string MoveToFile(const std::string& directory, const char* program) {
    return mapping_.MoveToFile(directory, program);
  }

  /// The slot of a tap-out buffer that is being switched on: the one that it had before, if it is
  /// still there. Null, after a log line, without a slot or room on the disk.
  StreamSlot* OpenStream(const std::string& name);

  /// The buffer has been switched off.
  void CloseStream(StreamSlot* slot);

  /// The counters of an inject buffer.
  InjectLog OpenInject(const std::string& name);

  void Record(const Event& event);

  /// Waits 100 ms, and on until a stream is open. False once Stop() has been called.
  bool WaitToSample();
  void Stop();

  /// Samples for how long each I/O thread has waited for a processor, and the wall clock; records
  /// threads that have ended by themselves. One thread at a time.
  void Sample();

 private:
  /// What is known of a stream's slot without reading it: a page that nobody has written must not
  /// be touched on a full disk.
  struct Place {
    std::string name = {};  // empty: never used
    uint64_t since_ns = 0;
    bool open = false;
    bool runs = false;  // its thread has been seen since it was opened, and has not ended
  };

  void Append(const EventRecord& record) EXCLUDES(events_mutex_);
  void SampleClock(uint64_t now_ns);
  Place* ChoosePlace(const std::string& name) REQUIRES(mutex_);
  StreamSlot& SlotOf(const Place& place) REQUIRES(mutex_);
  void Refuse(const std::string& name, const char* cause) REQUIRES(mutex_);

  Mapping mapping_;
  Mutex events_mutex_;  // leaf locks, both
  Mutex mutex_;
  CondVar changed_;
  std::array<Place, kStreams> places_ GUARDED_BY(mutex_);
  size_t open_count_ GUARDED_BY(mutex_) = 0;
  bool refused_ GUARDED_BY(mutex_) = false;
  bool stopping_ GUARDED_BY(mutex_) = false;
};

}  // namespace kvox::flight
