#include "client/verbs/report.h"

#include "client/model/tables.h"

namespace kvox::client {

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
  context.out.Message(object + ": " + CauseOf(result) + "; " + next_step);
  return result.status == Status::INVALID_PROCESSOR ? kNoObject : kRefused;
}

}  // namespace kvox::client
