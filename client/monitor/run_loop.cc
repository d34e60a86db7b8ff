#include "client/monitor/run_loop.h"

#include <fmt/chrono.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <ctime>

namespace kvox::client {
namespace {

constexpr short kHangUp = POLLERR | POLLHUP | POLLNVAL;
constexpr auto kLongestPoll = std::chrono::milliseconds(500);

int PollTimeout(RunLoop::Clock::time_point until) {
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(until - RunLoop::Clock::now());
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
};

}  // namespace

RunLoop::RunLoop(const SignalFd& signals, Sampler::Wanted wanted,
                 std::chrono::milliseconds interval, int input)
    : signals_(signals), interval_(interval), input_(input), poller_(wanted) {}

LoopEvent RunLoop::Next(Clock::time_point until) {
  if (Clock::now() >= due_) {
    poller_.Start();
    due_ = std::max(due_ + interval_, Clock::now());  // missed polls are skipped
  }
  pollfd events[] = {{signals_.fd(), POLLIN, 0},
                     {poller_.fd(), POLLIN, 0},
                     {STDOUT_FILENO, 0, 0},
                     {input_, POLLIN, 0}};
  poll(events, std::size(events), PollTimeout(std::min(due_, until)));
  LoopEvent event;
  event.signal = signals_.Take();
  event.result = poller_.Take();
  event.input = (events[3].revents & POLLIN) != 0;
  event.closed = ((events[2].revents | events[3].revents) & kHangUp) != 0;
  return event;
}

std::chrono::milliseconds IntervalOf(const Input& in) {
  return in.Seconds("--interval", 0.1f, 3600, std::chrono::seconds(1));
}

int LimitOf(const Input& in, const char* option) {
  return in.Number(option, 1, INT32_MAX, 0);
}

std::string LocalTime() {
  const WallClock now(localtime_r);
  return fmt::format("{:%H:%M:%S}.{:03}", now.parts, now.milliseconds);
}

std::string UtcTime() {
  const WallClock now(gmtime_r);
  return fmt::format("{:%Y-%m-%dT%H:%M:%S}.{:03}Z", now.parts, now.milliseconds);
}

}  // namespace kvox::client
