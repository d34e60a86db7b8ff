#include "client/monitor/run_loop.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <ctime>
#include <limits>

#include "client/calls/arguments.h"
#include "client/model/lookup.h"
#include "kvox/common/fixed_text.h"

namespace kvox::client {
namespace {

constexpr short kHangUp = POLLERR | POLLHUP | POLLNVAL;
constexpr auto kLongestPoll = std::chrono::milliseconds(500);

int PollTimeout(Live::Clock::time_point until) {
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(until - Live::Clock::now());
  return static_cast<int>(std::clamp(left, std::chrono::milliseconds(0), kLongestPoll).count());
}

struct WallClock {
  tm parts{};
  int milliseconds = 0;

  explicit WallClock(tm* (*convert)(const time_t*, tm*)) {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    convert(&now.tv_sec, &parts);
    milliseconds = static_cast<int>(now.tv_nsec / 1'000'000);
  }

  std::string Time() const {
    return FormatText<64>("%02d:%02d:%02d.%03d", parts.tm_hour, parts.tm_min, parts.tm_sec,
                          milliseconds);
  }
};

}  // namespace

Live::Live(const SignalFd& signals, Survey::Wanted wanted, std::chrono::milliseconds interval,
           int input)
    : signals_(signals), interval_(interval), input_(input), looker_(wanted) {}

Turn Live::Next(Clock::time_point until) {
  if (Clock::now() >= due_) {
    looker_.Begin();
    due_ = std::max(due_ + interval_, Clock::now());  // what was missed is not made up for
  }
  pollfd events[] = {{signals_.fd(), POLLIN, 0},
                     {looker_.fd(), POLLIN, 0},
                     {STDOUT_FILENO, 0, 0},
                     {input_, POLLIN, 0}};
  poll(events, std::size(events), PollTimeout(std::min(due_, until)));
  Turn turn;
  turn.signal = signals_.Take();
  turn.look = looker_.Take();
  turn.input = (events[3].revents & POLLIN) != 0;
  turn.closed = ((events[2].revents | events[3].revents) & kHangUp) != 0;
  return turn;
}

std::chrono::milliseconds ReadInterval(const Input& in) {
  const std::string& word = in.Get("--interval");
  if (word.empty()) return std::chrono::seconds(1);
  const auto seconds = ParseFloat(word);
  if (!seconds || !(*seconds >= 0.1f && *seconds <= 3600)) {
    throw UsageError("--interval: '" + ValidUtf8(word) + "' is not a number from 0.1 to 3600");
  }
  return std::chrono::milliseconds(std::lround(*seconds * 1000));
}

int ReadCount(const Input& in, const char* option) {
  const std::string& word = in.Get(option);
  return word.empty() ? 0 : Number(option, word, 1, std::numeric_limits<int32_t>::max());
}

std::string LocalTime() {
  return WallClock(localtime_r).Time();
}

std::string UtcTime() {
  const WallClock now(gmtime_r);
  return FormatText<64>("%04d-%02d-%02dT", now.parts.tm_year + 1900, now.parts.tm_mon + 1,
                        now.parts.tm_mday) +
         now.Time() + "Z";
}

}  // namespace kvox::client
