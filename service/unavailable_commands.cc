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

KvoxService::Status KvoxService::ListSupportedUseCases(CommandResult* result) {
  return Unavailable("ListSupportedUseCases", result);
}

KvoxService::Status KvoxService::Enable(const std::string&, bool, CommandResult* result) {
  return Unavailable("Enable", result);
}

KvoxService::Status KvoxService::IsEnabled(const std::string&, CommandResult* result) {
  return Unavailable("IsEnabled", result);
}

KvoxService::Status KvoxService::Debug(const std::vector<std::string>&, CommandResult* result) {
  return Unavailable("Debug", result);
}

KvoxService::Status KvoxService::EnableUseCase(IKvox::UseCase, bool, CommandResult* result) {
  return Unavailable("EnableUseCase", result);
}

KvoxService::Status KvoxService::IsUseCaseEnabled(IKvox::UseCase, CommandResult* result) {
  return Unavailable("IsUseCaseEnabled", result);
}

KvoxService::Status KvoxService::TapSetGain(int32_t, int32_t, int32_t, float, int32_t,
                                            CommandResult* result) {
  return Unavailable("TapSetGain", result);
}

KvoxService::Status KvoxService::UseCaseSetGain(const std::string&, float, int32_t,
                                                CommandResult* result) {
  return Unavailable("UseCaseSetGain", result);
}

}  // namespace kvox
