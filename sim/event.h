// Something that the event loop waits for: a descriptor, a signal or a point in time.
#pragma once

#include <event2/event.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <utility>

namespace kvox::sim {

struct FreeEventBase {
  void operator()(event_base* base) const { event_base_free(base); }
};
using EventBase = std::unique_ptr<event_base, FreeEventBase>;

/// A loop whose timers are precise, rather than in steps of the scheduler's tick.
inline EventBase NewEventBase() {
  event_config* config = event_config_new();
  event_config_set_flag(config, EVENT_BASE_FLAG_PRECISE_TIMER);
  EventBase base(event_base_new_with_config(config));
  event_config_free(config);
  return base;
}

class Event {
 public:
  /// `what` are libevent's EV_ flags; `call` runs on the loop's thread. The event is not pending
  /// before Add(). `base` outlives it.
  Event(event_base* base, int fd, short what, std::function<void()> call)
      : call_(std::move(call)), event_(event_new(base, fd, what, &Event::Run, this)) {}
  Event(const Event&) = delete;
  Event& operator=(const Event&) = delete;

  /// False when the descriptor cannot be waited for.
  bool Add() { return event_add(event_.get(), nullptr) == 0; }
  void AddIn(uint64_t ns) {
    const timeval delay{.tv_sec = static_cast<time_t>(ns / 1'000'000'000),
                        .tv_usec = static_cast<suseconds_t>(ns % 1'000'000'000 / 1000)};
    event_add(event_.get(), &delay);
  }
  void Remove() { event_del(event_.get()); }

 private:
  static void Run(evutil_socket_t, short, void* self) { static_cast<Event*>(self)->call_(); }

  struct Free {
    void operator()(event* freed) const { event_free(freed); }
  };
  const std::function<void()> call_;
  const std::unique_ptr<event, Free> event_;
};

}  // namespace kvox::sim
