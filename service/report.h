// A command's report: text lines and a status, which also go to the log.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace kvox {

/// The values of IKvox::CommandStatus. Commands also pass on other numbers that processors return.
enum class StatusCode : int8_t {
  kOk = 0,
  kError = 1,
  kInvalidProcessor = 2,
  kInvalidParameter = 3,
  kInvalidValue = 4,
};

/// The outcome of a command's work: a status, and a text that may be empty.
struct Outcome {
  StatusCode status = StatusCode::kOk;
  std::string text = {};
};

/// The report of a running command, or of a sequence of commands that share their lines.
struct Report {
  StatusCode status = StatusCode::kOk;
  float value = 0;
  std::vector<std::string> lines = {};

  bool ok() const { return status == StatusCode::kOk; }

  /// Logs the request and adds it as a line.
  void Begin(const std::string& request);

  /// Adds a line. Bytes that are not valid UTF-8 become '?', because no reply could carry them.
  void Push(const std::string& line);

  /// Ends a command: adds the text, if any, and for a failure a line with the command's name and
  /// the status word. Both are logged, as errors if the command failed.
  void End(const char* command, const std::string& text);

  /// Takes the outcome's status, unless it is OK, and ends with its text.
  void End(const char* command, const Outcome& outcome);
};

}  // namespace kvox
