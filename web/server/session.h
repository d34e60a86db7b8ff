// One page's connection: what it has asked for, and what it is to be sent. docs/web-api.md
// describes the messages.
#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "kvox/common/mutex.h"
#include "web/server/hub.h"
#include "web/server/request.h"
#include "web/server/timing.h"

namespace kvox::web {

struct Message {
  bool binary = false;
  std::string data = {};
};

/// The thread that serves the pages.
class Session {
 public:
  using Clock = std::chrono::steady_clock;

  explicit Session(Hub& hub) : hub_(hub) {}

  /// A message of the page. Throws Refusal.
  void Take(std::string_view text);

  /// The next message for the page; none when there is nothing to be said now. What a page is too
  /// slow for is left out: levels and audio are made when they can be sent.
  std::optional<Message> Next(Clock::time_point now);

  /// Whether the page has given the token.
  bool known() const { return known_; }

 private:
  /// Replies of commands, which come from other threads.
  struct Replies {
    Mutex mutex;
    std::deque<std::string> waiting GUARDED_BY(mutex);
    size_t running GUARDED_BY(mutex) = 0;
  };
  struct Listening {
    Watched watched;
    uint64_t told = 0;  // sequence of the last block or levels
  };
  using Points = std::map<std::string, Listening>;

  // What Take() does with each request.
  void Do(const TokenRequest& request);
  void Do(const RunRequest& request);
  void Do(const WatchRequest& request);
  void Do(const KeepRequest& request);
  void Do(const RulesRequest& request);
  void Select(const std::vector<std::string>& names, Points& points, Json& refused);
  std::optional<std::string> NextText(Clock::time_point now);
  std::optional<std::string> NextLevels();
  std::optional<std::string> NextTiming();
  std::optional<std::string> NextNews();
  std::string NextAudio();

  Hub& hub_;
  bool known_ = false;
  const std::shared_ptr<Replies> replies_ = std::make_shared<Replies>();
  std::deque<std::string> texts_;
  Points levels_;
  Points audio_;
  std::map<std::string, Timing> timing_;
  std::map<std::string, std::string> errors_;  // as told
  uint64_t skipped_ = 0;                       // blocks that the page was too slow for
  uint64_t changes_ = UINT64_MAX;
  uint64_t counted_ = 0;
  uint64_t logged_ = 0;
  uint64_t kept_ = 0;
  Clock::time_point levels_due_ = {};
  Clock::time_point audio_due_ = {};
  Clock::time_point timing_due_ = {};
};

}  // namespace kvox::web
