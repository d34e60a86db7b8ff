// An event that ends another thread's wait.
#pragma once

namespace kvox {

/// An eventfd. Signals add up to one until they are cleared.
class WakeEvent {
 public:
  WakeEvent();
  ~WakeEvent();
  WakeEvent(const WakeEvent&) = delete;
  WakeEvent& operator=(const WakeEvent&) = delete;

  void Signal();      // RT: any thread
  void Clear();       // RT: the waiting thread
  void Wait() const;  // the waiting thread: until there is a signal, without clearing it
  int fd() const { return fd_; }

 private:
  const int fd_;
};

}  // namespace kvox
