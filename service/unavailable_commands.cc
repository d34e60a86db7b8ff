// Commands that this build does not serve yet. They refuse, so that a client sees at once what it
// is talking to.

#include "service/kvox_service.h"

namespace kvox {
namespace {

KvoxService::Status Unavailable(const char* command, CommandResult* result) {
  result->status = CommandStatus::ERROR;
  print_command_status(command, "Unavailable", result);
  return KvoxService::Status::ok();
}

}  // namespace

KvoxService::Status KvoxService::Debug(const std::vector<std::string>&, CommandResult* result) {
  return Unavailable("Debug", result);
}

}  // namespace kvox
