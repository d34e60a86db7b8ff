// A command's report: text lines and a status, which also go to the log.
#pragma once

#include <cstddef>
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
  bool no_reply = false;  // of the co-processor
};

/// Bytes of the lines in one reply, as UTF-16 in a parcel: the transport carries 1 MiB, the rest is
/// for the status and what else a method returns.
inline constexpr size_t kMaxReplyLineBytes = (1u << 20) - 4096;

/// Leaves out what does not fit into one reply; a last line then says how many lines are missing. A
/// command that took effect must not fail because of its report.
void CutToReply(std::vector<std::string>& lines);

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
