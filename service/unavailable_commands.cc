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

KvoxService::Status KvoxService::EnableUseCase(IKvox::UseCase, bool, CommandResult* result) {
  return Unavailable("EnableUseCase", result);
}

KvoxService::Status KvoxService::IsUseCaseEnabled(IKvox::UseCase, CommandResult* result) {
  return Unavailable("IsUseCaseEnabled", result);
}

KvoxService::Status KvoxService::SetParameter(int32_t, IKvox::ParameterId, int32_t,
                                              const IKvox::ParamValue&, CommandResult* result) {
  return Unavailable("SetParameter", result);
}

KvoxService::Status KvoxService::GetParameter(int32_t, IKvox::ParameterId, int32_t,
                                              IKvox::ParamValue*, CommandResult* result) {
  return Unavailable("GetParameter", result);
}

KvoxService::Status KvoxService::SetParameterBulk(int32_t,
                                                  const std::vector<IKvox::ParamIdElementPair>&,
                                                  const std::vector<IKvox::ParamValue>&,
                                                  CommandResult* result) {
  return Unavailable("SetParameterBulk", result);
}

KvoxService::Status KvoxService::GetParameterBulk(int32_t,
                                                  const std::vector<IKvox::ParamIdElementPair>&,
                                                  CommandResult* result,
                                                  std::vector<IKvox::ParamValue>*) {
  return Unavailable("GetParameterBulk", result);
}

KvoxService::Status KvoxService::ListParameters(CommandResult* result) {
  return Unavailable("ListParameters", result);
}

KvoxService::Status KvoxService::SendAudio(int32_t, const IKvox::AudioPacket&,
                                           CommandResult* result) {
  return Unavailable("SendAudio", result);
}

KvoxService::Status KvoxService::RegisterReceiveAudioCallback(
    int32_t, const std::shared_ptr<IKvox::IReceiveAudioCallback>&, CommandResult* result) {
  return Unavailable("RegisterReceiveAudioCallback", result);
}

KvoxService::Status KvoxService::ProcessorSetStatsMaxBufferEntries(int32_t, int32_t,
                                                                   CommandResult* result) {
  return Unavailable("ProcessorSetStatsMaxBufferEntries", result);
}

KvoxService::Status KvoxService::ProcessorGetStats(int32_t, IKvox::ProcessorStats*,
                                                   CommandResult* result) {
  return Unavailable("ProcessorGetStats", result);
}

KvoxService::Status KvoxService::ProcessorResetStats(int32_t, CommandResult* result) {
  return Unavailable("ProcessorResetStats", result);
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
