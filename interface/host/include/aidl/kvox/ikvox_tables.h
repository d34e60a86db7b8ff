// The rows of kvox/IKvox.aidl: enumerators and methods in its order, which fixes codes and bytes. A
// method's row has its C++ parameters and their names: in arguments are values or constant
// references, out arguments are pointers, the last of which is the result.
#pragma once

// clang-format off
#define KVOX_COMMAND_STATUSES(E) \
  E(OK, 0)                       \
  E(ERROR, 1)                    \
  E(INVALID_PROCESSOR, 2)        \
  E(INVALID_PARAMETER, 3)        \
  E(INVALID_VALUE, 4)

#define KVOX_USE_CASES(E)   \
  E(UNSPECIFIED, -1)        \
  E(HOTWORDAEC, 0)          \
  E(MIC_IN, 1)              \
  E(SPEAKER_OUT, 2)         \
  E(AREL_TELE, 3)           \
  E(PHONEBOOTH, 4)          \
  E(AREL_MEDIA_PLAYBACK, 5)

#define KVOX_PARAMETER_IDS(E) \
  E(UNSPECIFIED, -1)          \
  E(VERSION, 0)               \
  E(PASSTHROUGH_MODE, 1)      \
  E(TEST_MODE, 2)             \
  E(BLOCK_LENGTH, 3)          \
  E(AUDIO_FORMAT, 4)          \
  E(JITTER_BUFFER, 5)

#define KVOX_PARAM_VALUE_TAGS(E) E(i, 0) E(f, 1) E(v, 2)

#define KVOX_ENUMS(E)                     \
  E(CommandStatus, KVOX_COMMAND_STATUSES) \
  E(UseCase, KVOX_USE_CASES)              \
  E(ParameterId, KVOX_PARAMETER_IDS)      \
  E(ParamValue::Tag, KVOX_PARAM_VALUE_TAGS)

#define KVOX_METHODS(M) \
  M(Ping, (), ()) \
  M(ShowGraph, (CommandResult* _aidl_return), (_aidl_return)) \
  M(ListProcessors, (CommandResult* _aidl_return), (_aidl_return)) \
  M(ListSupportedProcessors, (CommandResult* _aidl_return), (_aidl_return)) \
  M(NewProcessor, (int32_t processorId, CommandResult* _aidl_return), (processorId, _aidl_return)) \
  M(NewProcessorWithType, (int32_t processorId, int32_t type, CommandResult* _aidl_return), (processorId, type, _aidl_return)) \
  M(DeleteProcessor, (int32_t processorId, CommandResult* _aidl_return), (processorId, _aidl_return)) \
  M(ListSupportedUseCases, (CommandResult* _aidl_return), (_aidl_return)) \
  M(Enable, (const std::string& useCaseName, bool enable, CommandResult* _aidl_return), (useCaseName, enable, _aidl_return)) \
  M(IsEnabled, (const std::string& useCaseName, CommandResult* _aidl_return), (useCaseName, _aidl_return)) \
  M(ProcessorInfo, (int32_t processorId, CommandResult* _aidl_return), (processorId, _aidl_return)) \
  M(ProcessorEnable, (int32_t processorId, bool enable, CommandResult* _aidl_return), (processorId, enable, _aidl_return)) \
  M(ProcessorIsEnabled, (int32_t processorId, CommandResult* _aidl_return), (processorId, _aidl_return)) \
  M(TapList, (int32_t core, CommandResult* _aidl_return), (core, _aidl_return)) \
  M(TapInfo, (int32_t core, int32_t tap, int32_t index, CommandResult* _aidl_return), (core, tap, index, _aidl_return)) \
  M(TapEnable, (int32_t core, int32_t tap, int32_t index, bool enable, CommandResult* _aidl_return), (core, tap, index, enable, _aidl_return)) \
  M(TapSetBlockLength, (int32_t core, int32_t tap, int32_t index, int32_t blockLength, CommandResult* _aidl_return), (core, tap, index, blockLength, _aidl_return)) \
  M(ListTapOutBuffers, (CommandResult* _aidl_return), (_aidl_return)) \
  M(ListInjectBuffers, (CommandResult* _aidl_return), (_aidl_return)) \
  M(Connect, (int32_t processorId, int32_t tapOutBuffer, int32_t injectBuffer, CommandResult* _aidl_return), (processorId, tapOutBuffer, injectBuffer, _aidl_return)) \
  M(ConnectTap, (int32_t core, int32_t tap, int32_t index, int32_t tapOutBuffer, int32_t injectBuffer, CommandResult* _aidl_return), (core, tap, index, tapOutBuffer, injectBuffer, _aidl_return)) \
  M(StartIo, (int32_t tapOutBuffer, CommandResult* _aidl_return), (tapOutBuffer, _aidl_return)) \
  M(StopIo, (int32_t tapOutBuffer, CommandResult* _aidl_return), (tapOutBuffer, _aidl_return)) \
  M(Debug, (const std::vector<std::string>& args, CommandResult* _aidl_return), (args, _aidl_return)) \
  M(EnableUseCase, (UseCase useCase, bool enable, CommandResult* _aidl_return), (useCase, enable, _aidl_return)) \
  M(IsUseCaseEnabled, (UseCase useCase, CommandResult* _aidl_return), (useCase, _aidl_return)) \
  M(SetParameter, (int32_t processorId, ParameterId parameter, int32_t element, const ParamValue& value, CommandResult* _aidl_return), (processorId, parameter, element, value, _aidl_return)) \
  M(GetParameter, (int32_t processorId, ParameterId parameter, int32_t element, ParamValue* value, CommandResult* _aidl_return), (processorId, parameter, element, value, _aidl_return)) \
  M(SetParameterBulk, (int32_t processorId, const std::vector<ParamIdElementPair>& pairs, const std::vector<ParamValue>& values, CommandResult* _aidl_return), (processorId, pairs, values, _aidl_return)) \
  M(GetParameterBulk, (int32_t processorId, const std::vector<ParamIdElementPair>& pairs, CommandResult* result, std::vector<ParamValue>* _aidl_return), (processorId, pairs, result, _aidl_return)) \
  M(ListParameters, (CommandResult* _aidl_return), (_aidl_return)) \
  M(SendAudio, (int32_t processorId, const AudioPacket& packet, CommandResult* _aidl_return), (processorId, packet, _aidl_return)) \
  M(RegisterReceiveAudioCallback, (int32_t processorId, const std::shared_ptr<IReceiveAudioCallback>& callback, CommandResult* _aidl_return), (processorId, callback, _aidl_return)) \
  M(tapSetJitterBuffer, (int32_t core, int32_t tap, int32_t index, int32_t jitterBuffer, CommandResult* _aidl_return), (core, tap, index, jitterBuffer, _aidl_return)) \
  M(ProcessorSetStatsMaxBufferEntries, (int32_t processorId, int32_t entries, CommandResult* _aidl_return), (processorId, entries, _aidl_return)) \
  M(ProcessorGetStats, (int32_t processorId, ProcessorStats* stats, CommandResult* _aidl_return), (processorId, stats, _aidl_return)) \
  M(ProcessorResetStats, (int32_t processorId, CommandResult* _aidl_return), (processorId, _aidl_return)) \
  M(TapSetGain, (int32_t core, int32_t tap, int32_t index, float gain, int32_t rampMs, CommandResult* _aidl_return), (core, tap, index, gain, rampMs, _aidl_return)) \
  M(UseCaseSetGain, (const std::string& useCaseName, float gain, int32_t rampMs, CommandResult* _aidl_return), (useCaseName, gain, rampMs, _aidl_return))

#define KVOX_CALLBACK_METHODS(M) \
  M(ReceiveAudio, (const AudioPacket& packet), (packet))
// clang-format on

// What a row expands to.
#define KVOX_ENUMERATOR(name, value) name = value,
#define KVOX_PURE_METHOD(name, parameters, arguments) \
  virtual ::ndk::ScopedAStatus name parameters = 0;
#define KVOX_METHOD_OVERRIDE(name, parameters, arguments) \
  ::ndk::ScopedAStatus name parameters override;
#define KVOX_TRANSACTION(name, parameters, arguments) TRANSACTION_##name,
