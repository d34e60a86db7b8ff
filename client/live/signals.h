// Signals as something to wait for.
#pragma once

#include <signal.h>

#include <initializer_list>

namespace kvox::client {

/// Holds signals back from every thread, so that they come one by one and between steps. To be made
/// before any thread starts; the signals stay held to the end of the process. What the process was
/// told to ignore, as nohup does, it goes on ignoring.
class Signals {
 public:
  /// Throws std::runtime_error.
  Signals(std::initializer_list<int> numbers);
  ~Signals();
  Signals(const Signals&) = delete;
  Signals& operator=(const Signals&) = delete;

  /// The next signal that has come; 0 when there is none.
  int Take() const;

  /// Readable while there is one.
  int fd() const { return fd_; }

  /// While one exists, the calling thread takes the signals as they come: they end the process, and
  /// an interrupt ends it with status 0. For output that may block.
  class LetThrough {
   public:
    explicit LetThrough(const Signals& signals);
    ~LetThrough();
    LetThrough(const LetThrough&) = delete;
    LetThrough& operator=(const LetThrough&) = delete;

   private:
    sigset_t before_;
  };

 private:
  const sigset_t held_;
  int fd_;
};

/// Does what the signal does by default: ends the process, or stops it until it is continued.
void DoAsDefault(int signal);

/// How a program that was told to end by `signal` ends: an interrupt is an ordinary end, with
/// status 0; any other is passed on.
int EndBy(int signal);

}  // namespace kvox::client
