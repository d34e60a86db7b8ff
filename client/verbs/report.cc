#include "client/verbs/report.h"

#include "client/model/tables.h"

namespace kvox::client {
namespace {

/// What follows the line that repeats the request, in one line.
std::string Cause(const IKvox::CommandResult& result) {
  const Lines lines = SplitLines(result.lines);
  std::string text;
  for (size_t i = 1; i < lines.size(); ++i) {
    const size_t begin = lines[i].find_first_not_of(' ');
    if (begin == std::string::npos) continue;
    text += (text.empty() ? "" : "; ") + lines[i].substr(begin);
  }
  return text.empty() ? "the daemon answers " + toString(result.status) : text;
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
