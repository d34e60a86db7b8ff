// Follows the flight log: when something has changed, what happened, and how the streams do.
#pragma once

#include <atomic>
#include <deque>
#include <functional>
#include <nlohmann/json.hpp>
#include <thread>
#include <vector>

#include "kvox/common/mutex.h"
#include "kvox/flight/reader.h"

namespace kvox::web {

using Json = nlohmann::ordered_json;

/// What pages are told about the daemon as a whole.
struct Pulse {
  uint64_t changes = 0;  // grows with each command, device, restart...
  uint64_t counted = 0;  // grows with `streams`
  uint64_t logged = 0;   // the sequence of the last entry of the log
  bool alive = false;    // a daemon runs
  Json streams = Json::array();
};

/// What a look has found.
struct News {
  bool any = false;
  bool restarted = false;  // the daemon or the co-processor
};

/// Looks four times a second, on a thread of its own. Any thread.
class FlightWatch {
 public:
  /// `on_look` is called on the own thread after each look.
  explicit FlightWatch(std::function<void(News)> on_look);
  ~FlightWatch();
  FlightWatch(const FlightWatch&) = delete;
  FlightWatch& operator=(const FlightWatch&) = delete;

  Pulse pulse() const;

  /// The entries of the log after the one of that sequence, oldest first: what was commanded and
  /// what became of devices, streams and clients. The last few hundred are kept.
  Json LogAfter(uint64_t sequence) const;

  /// The counters as text that monitoring systems scrape; "" when there is no daemon.
  static std::string Metrics();

 private:
  void Run();
  News Look();
  void AddToLog(const flight::FlightView& flight, const flight::EventView& event) REQUIRES(mutex_);

  const std::function<void(News)> on_look_;
  std::atomic<bool> ending_ = false;
  uint64_t last_event_ns_ = 0;  // the thread's
  uint32_t pid_ = 0;            // likewise
  mutable Mutex mutex_;
  Pulse pulse_ GUARDED_BY(mutex_);
  std::deque<Json> log_ GUARDED_BY(mutex_);
  std::thread thread_;
};

}  // namespace kvox::web
