// Signals that a program handles between its steps, not in the middle of one.
#pragma once

#include <signal.h>

#include <initializer_list>

namespace kvox::client {

/// Those of the signals that this process does not ignore. An ignored one, as under nohup, must
/// stay ignored: a blocked signal is delivered even when it is ignored.
sigset_t NotIgnored(std::initializer_list<int> numbers);

/// Blocks NotIgnored() in every thread, and returns them. To be called before any thread starts.
sigset_t BlockSignals(std::initializer_list<int> numbers);

/// Blocks signals, and makes them something to poll for. To be made before any thread starts; the
/// signals stay blocked until the process ends. Ignored signals stay ignored.
class SignalFd {
 public:
  /// Throws std::runtime_error.
  SignalFd(std::initializer_list<int> numbers);
  ~SignalFd();
  SignalFd(const SignalFd&) = delete;
  SignalFd& operator=(const SignalFd&) = delete;

  /// The next pending signal; 0 when there is none.
  int Take() const;

  /// Readable while a signal is pending.
  int fd() const { return fd_; }

  /// While one exists, the calling thread does not block the signals: they end the process, and
  /// SIGINT ends it with status 0. For output that may block.
  class Unblocked {
   public:
    explicit Unblocked(const SignalFd& signals);
    ~Unblocked();
    Unblocked(const Unblocked&) = delete;
    Unblocked& operator=(const Unblocked&) = delete;

   private:
    sigset_t before_;
  };

 private:
  const sigset_t blocked_;
  int fd_;
};

/// Takes the signal's default action: ends the process, or stops it until it is continued.
void RaiseDefault(int signal);

/// The end of a program that received `signal`: SIGINT is an ordinary end, with status 0; any other
/// takes its default action.
int EndBySignal(int signal);

}  // namespace kvox::client
