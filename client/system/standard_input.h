// Standard input for a library that reads until it has enough: its end comes with an interrupt,
// too.
#pragma once

#include <atomic>
#include <string>
#include <thread>

#include "kvox/common/unique_fd.h"

namespace kvox::client {

/// A pipe that a thread fills with what comes on standard input, of whatever kind that is.
class StandardInput {
 public:
  /// To be made after Interrupts. Throws Failure.
  StandardInput();

  /// Drops what has not been read.
  ~StandardInput();
  StandardInput(const StandardInput&) = delete;
  StandardInput& operator=(const StandardInput&) = delete;

  /// Names the pipe's read end.
  std::string path() const;

 private:
  void Pump(UniqueFd write_end) const;

  UniqueFd read_end_;
  std::atomic<bool> ended_ = false;
  std::thread thread_;
};

}  // namespace kvox::client
