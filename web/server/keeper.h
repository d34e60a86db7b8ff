// The flight recorder: writes the last seconds of what pages watch into a folder, when it is asked
// to or when a rule holds. docs/web.md describes the folders.
#pragma once

#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "kvox/common/mutex.h"
#include "web/server/watcher.h"
#include "web/server/work_queue.h"

namespace kvox::web {

using Json = nlohmann::ordered_json;

/// What makes it keep by itself: audio that was lost, samples at full scale, a restart of the
/// daemon or the co-processor.
inline constexpr std::array<std::string_view, 3> kRules = {"loss", "clip", "restart"};

/// Any thread.
class Keeper {
 public:
  using Clock = std::chrono::steady_clock;
  using Watchers = std::vector<std::shared_ptr<const Watcher>>;
  using Rules = std::set<std::string>;

  struct Options {
    std::filesystem::path directory = {};
    Rules rules = {};
    std::string client = {};  // the program kvoxctl
  };

  /// `log` returns what is kept as the log of events. `on_change` is called when there is another
  /// folder, or other rules. It writes what is to be written when it ends, with what of the daemon
  /// can be had once `ending` is true.
  Keeper(Options options, std::function<Json()> log, std::function<void()> on_change,
         const std::atomic<bool>& ending);

  /// Those of kRules; others are left out.
  void SetRules(const Rules& rules);

  /// Whether a rule holds; two seconds later a folder is written, so that it shows what came of it.
  /// To be called several times a second.
  void Look(const Watchers& watchers, bool restarted, Clock::time_point now);

  /// Begins to write a folder, unless two are being written already; `reason` is a word.
  void Keep(const Watchers& watchers, const std::string& reason);

  /// Grows with each change of Status().
  uint64_t version() const;

  /// {"directory", "rules", "folders": newest first, "error": of the last try, or null}.
  Json Status() const;

  /// The path of a file of a folder; none when the names could lead elsewhere.
  std::optional<std::string> FileOf(const std::string& folder, const std::string& file) const;

 private:
  struct Audio {
    std::string point;
    std::vector<Heard> blocks;
  };
  struct Seen {
    uint64_t missing = 0;
    uint64_t clipped = 0;
  };

  std::string ReasonOf(const Watchers& watchers, bool restarted) REQUIRES(mutex_);
  void Write(const std::vector<Audio>& audio, const Json& log, const std::string& reason);
  Json WriteParts(const std::filesystem::path& folder, const std::vector<Audio>& audio) const;
  void RemoveOldest() const;
  void Changed(Json error);

  const Options options_;
  const std::function<Json()> log_;
  const std::function<void()> on_change_;
  const std::atomic<bool>& ending_;
  mutable Mutex mutex_;
  Rules rules_ GUARDED_BY(mutex_);
  std::map<std::string, Seen> seen_ GUARDED_BY(mutex_);
  std::string pending_ GUARDED_BY(mutex_);  // the reason; "" for none
  Clock::time_point due_ GUARDED_BY(mutex_) = {};
  Clock::time_point quiet_until_ GUARDED_BY(mutex_) = {};
  int waiting_ GUARDED_BY(mutex_) = 0;  // folders to be written
  uint64_t version_ GUARDED_BY(mutex_) = 1;
  Json folders_ GUARDED_BY(mutex_) = Json::array();
  Json error_ GUARDED_BY(mutex_);
  WorkQueue writing_;  // last: its thread uses the others
};

}  // namespace kvox::web
