// What all pages of this server share.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>

#include "kvox/common/mutex.h"
#include "libkvox/calls/daemon.h"
#include "web/server/flight_watch.h"
#include "web/server/keeper.h"
#include "web/server/watcher.h"
#include "web/server/work_queue.h"

namespace kvox::web {

/// A point that a page watches, and the number that its audio carries.
struct Watched {
  uint32_t number = 0;
  std::shared_ptr<Watcher> watcher = {};
};

/// The thread that serves the pages, except where a function says otherwise.
class Hub {
 public:
  struct Options {
    std::string token = {};
    bool read_only = false;
    double keep_s = 30;              // of the audio of each point
    std::string client = "kvoxctl";  // the program that runs commands
    std::string kept = {};           // directory of what the flight recorder keeps
    Keeper::Rules rules = {};        // when it keeps by itself
  };

  /// `wake` makes that thread look for news; any thread calls it.
  Hub(Options options, std::function<void()> wake);
  ~Hub();
  Hub(const Hub&) = delete;
  Hub& operator=(const Hub&) = delete;

  /// True when commands should end. Any thread.
  const std::atomic<bool>& ending() const { return ending_; }

  const Options& options() const { return options_; }
  Pulse pulse() const { return flight_.pulse(); }
  const FlightWatch& flight() const { return flight_; }
  Keeper& keeper() { return keeper_; }

  /// Whoever holds it watches the point; the last one to drop it ends that, elsewhere. Without a
  /// watcher when there are too many.
  Watched Watch(const std::string& point);

  /// All points that are watched. Any thread.
  Keeper::Watchers Watchers() const;

  /// Whether another command may be run; each call that returns true is followed by Do().
  bool TakePlace();

  /// Does work elsewhere, then wakes the thread.
  void Do(WorkQueue::Work work);

 private:
  struct Entry {
    uint32_t number;
    std::weak_ptr<Watcher> watcher;
  };

  const Options options_;
  const std::function<void()> wake_;
  std::atomic<bool> ending_ = false;
  std::atomic<int> running_ = 0;  // commands
  client::Daemon daemon_;
  mutable Mutex mutex_;
  std::map<std::string, Entry> entries_ GUARDED_BY(mutex_);
  uint32_t last_number_ = 0;
  WorkQueue commands_;
  WorkQueue leaving_;  // watchers that nobody holds any more
  Keeper keeper_;
  FlightWatch flight_;  // last: its thread uses the others
};

}  // namespace kvox::web
