// Exit statuses of kvoxctl, and the exceptions that end it.
#pragma once

#include <stdexcept>
#include <string>

namespace kvox::client {

enum ExitStatus {
  kDone = 0,
  kRefused = 1,     // the daemon returned an error
  kWrongUsage = 2,  // nothing was changed
  kNoDaemon = 3,    // none was reached, or it went away
  kNoObject = 4,    // no processor, tap point, buffer... of that name
  kNotAllowed = 5,  // no right to open the daemon's socket
  kTimedOut = 6,
  kGaps = 7,     // audio was missed, or ended early
  kFailed = 74,  // kvoxctl itself failed
};

/// Ends the program. The text names the object, the cause and the next step.
class Failure : public std::runtime_error {
 public:
  Failure(ExitStatus status, const std::string& text) : std::runtime_error(text), status_(status) {}
  ExitStatus status() const { return status_; }

 private:
  ExitStatus status_;
};

/// A wrong command line; the text names the argument.
class UsageError : public Failure {
 public:
  explicit UsageError(const std::string& text) : Failure(kWrongUsage, text) {}
};

}  // namespace kvox::client
