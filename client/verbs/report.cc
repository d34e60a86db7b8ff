#include "client/verbs/report.h"

#include "client/model/tables.h"

namespace kvox::client {
namespace {

/// What follows the line that repeats the request, in one line.
std::string Cause(const IKvox::CommandResult& result) {
  const Lines lines = SplitLines(result.lines);
  std::string text;
  for (size_t i = lines.size() > 1 ? 1 : 0; i < lines.size(); ++i) {
    const size_t begin = lines[i].find_first_not_of(' ');
    if (begin == std::string::npos) continue;
    text += (text.empty() ? "" : "; ") + lines[i].substr(begin);
  }
  if (!text.empty()) return text;
  return "the daemon answers status " + std::to_string(static_cast<int>(result.status));
}

}  // namespace

int Report(const Context& context, const std::string& object, const IKvox::CommandResult& result,
           Fields fields, const std::string& next_step) {
  using Status = IKvox::CommandStatus;
  const bool done = result.status == Status::OK;
  if (context.out.json()) {
    fields.emplace(fields.begin(), "status", static_cast<int64_t>(result.status));
    fields.emplace_back("lines", result.lines);
  }
  if (done || context.out.json()) context.out.One(result.lines, fields);
  if (done) return kDone;
  context.out.Message(object + ": " + Cause(result) + "; " + next_step);
  return result.status == Status::INVALID_PROCESSOR ? kNoObject : kRefused;
}

}  // namespace kvox::client
