#include "bench/traffic.h"

#include <poll.h>
#include <sched.h>

#include <algorithm>

namespace kvox::bench {
namespace {

using Clock = std::chrono::steady_clock;

constexpr int kPacketPatienceMs = 1000;

/// Takes what comes back until `due`.
void ReceiveUntil(const Lanes& lanes, std::vector<pollfd>& fds, Clock::time_point due) {
  for (;;) {
    const auto left = std::chrono::nanoseconds(due - Clock::now());
    const timespec timeout{.tv_sec = 0, .tv_nsec = std::max<int64_t>(left.count(), 0)};
    const int ready = ppoll(fds.data(), fds.size(), &timeout, nullptr);
    for (size_t i = 0; ready > 0 && i < lanes.size(); ++i) {
      if (fds[i].revents != 0) lanes[i]->Receive();
    }
    if (left.count() <= 0) return;
  }
}

}  // namespace

bool RaisePriority() {
  sched_param param{};
  param.sched_priority = sched_get_priority_max(SCHED_FIFO) / 2;
  return sched_setscheduler(0, SCHED_FIFO, &param) == 0;
}

void DropPriority() {
  sched_param param{};
  sched_setscheduler(0, SCHED_OTHER, &param);
}

void PlayPingPong(const Lanes& lanes, unsigned packets) {
  for (unsigned i = 0; i < packets; ++i) {
    for (const auto& lane : lanes) {
      lane->Send();
      lane->Drain(kPacketPatienceMs);
    }
  }
}

void PlayPaced(const Lanes& lanes, unsigned periods, std::chrono::nanoseconds period) {
  std::vector<pollfd> fds;
  for (const auto& lane : lanes) fds.push_back({.fd = lane->fd(), .events = POLLIN, .revents = 0});
  const auto step = period / lanes.size();
  auto due = Clock::now();
  for (unsigned i = 0; i < periods; ++i) {
    for (const auto& lane : lanes) {
      lane->Send();
      due += step;
      ReceiveUntil(lanes, fds, due);
    }
  }
  for (const auto& lane : lanes) lane->Drain(kPacketPatienceMs);
}

}  // namespace kvox::bench
