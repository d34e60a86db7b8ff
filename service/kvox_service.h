// KvoxService implements the IKvox interface. It owns the parts that do the work and forwards each
// call to one of them; service/commands/ has a file for each group of calls.
//
//   Inventory   existing buffers and processors
//   SavedState  what clients have set up, for recoveries
//   Wiring      which processor reads and writes which buffers
//   TapPoints   exchanges with the co-processor
//   IoSwitch    switching buffers, the wake lock
//   UseCases    sequences of commands
//   Recovery    departure and arrival of devices
#pragma once

#include <aidl/kvox/BnKvox.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "kvox/common/byte_budget.h"
#include "kvox/common/mutex.h"
#include "kvox/common/thread_group.h"
#include "processors/processor_host.h"
#include "service/command_note.h"
#include "service/coprocessor_link.h"
#include "service/device_event.h"
#include "service/device_scan.h"
#include "service/inventory.h"
#include "service/io_switch.h"
#include "service/limits.h"
#include "service/recovery.h"
#include "service/report.h"
#include "service/saved_state.h"
#include "service/tap_points.h"
#include "service/use_cases.h"
#include "service/wiring.h"

namespace kvox {

using CommandResult = IKvox::CommandResult;
using CommandStatus = IKvox::CommandStatus;

/// The service's collaborators. All of them outlive it.
struct ServiceEnvironment {
  CoprocessorLink& link;
  DeviceIo& io;
  LogTarget& io_log;
  flight::FlightLog& flight;
  std::string device_directory;
  std::function<DeviceScan(const std::string& directory)> scan = ScanDataDevices;
  RecoveryRun::Starter start_recovery = RecoveryThread::Start;
  /// Called with true when a command begins that may wait for the co-processor or a device, and
  /// with false when it ends, on the same thread. Pairs may be nested.
  std::function<void(bool)> call_waits = [](bool) {};
};

/// Commands may be called from any thread. Their outcome is in the CommandResult; the binder status
/// is always OK.
class KvoxService final : public aidl::kvox::BnKvox, private ProcessorHost {
 public:
  using Status = ndk::ScopedAStatus;

  /// Publishes the instance and runs the first scan on the calling thread, with the pauses that
  /// `startup` makes.
  KvoxService(const ServiceEnvironment& environment, RecoveryClock& startup);
  ~KvoxService() override;

  /// Waits at most about 400 ms until a service exists, else logs an error. Always returns -1.
  static int WaitForServiceReady();

  /// Passes a change of the device directory to the service, if there is one. Event thread.
  static void DispatchDeviceEvent(const DeviceEvent& event);

  void HandleDeviceEvent(const DeviceEvent& event) { recovery_.HandleDeviceEvent(event); }

  Status Ping() override;

  // Processors.
  Status ListProcessors(CommandResult* result) override;
  Status ListSupportedProcessors(CommandResult* result) override;
  Status NewProcessor(int32_t id, CommandResult* result) override;
  Status NewProcessorWithType(int32_t id, int32_t type, CommandResult* result) override;
  Status DeleteProcessor(int32_t id, CommandResult* result) override;
  Status ProcessorInfo(int32_t id, CommandResult* result) override;
  Status ProcessorEnable(int32_t id, bool enable, CommandResult* result) override;
  Status ProcessorIsEnabled(int32_t id, CommandResult* result) override;

  // Tap points.
  Status TapList(int32_t core, CommandResult* result) override;
  Status TapInfo(int32_t core, int32_t tap, int32_t index, CommandResult* result) override;
  Status TapEnable(int32_t core, int32_t tap, int32_t index, bool enable,
                   CommandResult* result) override;
  Status TapSetBlockLength(int32_t core, int32_t tap, int32_t index, int32_t length,
                           CommandResult* result) override;
  Status tapSetJitterBuffer(int32_t core, int32_t tap, int32_t index, int32_t size,
                            CommandResult* result) override;
  Status TapSetGain(int32_t core, int32_t tap, int32_t index, float gain, int32_t ramp_ms,
                    CommandResult* result) override;

  // Connections and graph.
  Status Connect(int32_t processor, int32_t tapout, int32_t inject, CommandResult* result) override;
  Status ConnectTap(int32_t core, int32_t tap, int32_t index, int32_t tapout, int32_t inject,
                    CommandResult* result) override;
  Status ListTapOutBuffers(CommandResult* result) override;
  Status ListInjectBuffers(CommandResult* result) override;
  Status ShowGraph(CommandResult* result) override;

  // Audio I/O, a client's audio, and statistics.
  Status StartIo(int32_t tapout, CommandResult* result) override;
  Status StopIo(int32_t tapout, CommandResult* result) override;
  Status SendAudio(int32_t id, const IKvox::AudioPacket& packet, CommandResult* result) override;
  Status RegisterReceiveAudioCallback(int32_t id,
                                      const std::shared_ptr<IKvox::IReceiveAudioCallback>& callback,
                                      CommandResult* result) override;
  Status ProcessorSetStatsMaxBufferEntries(int32_t id, int32_t entries,
                                           CommandResult* result) override;
  Status ProcessorGetStats(int32_t id, IKvox::ProcessorStats* stats,
                           CommandResult* result) override;
  Status ProcessorResetStats(int32_t id, CommandResult* result) override;

  // Parameters.
  Status SetParameter(int32_t id, IKvox::ParameterId parameter, int32_t element,
                      const IKvox::ParamValue& value, CommandResult* result) override;
  Status GetParameter(int32_t id, IKvox::ParameterId parameter, int32_t element,
                      IKvox::ParamValue* value, CommandResult* result) override;
  Status SetParameterBulk(int32_t id, const std::vector<IKvox::ParamIdElementPair>& pairs,
                          const std::vector<IKvox::ParamValue>& values,
                          CommandResult* result) override;
  Status GetParameterBulk(int32_t id, const std::vector<IKvox::ParamIdElementPair>& pairs,
                          CommandResult* result, std::vector<IKvox::ParamValue>* values) override;
  Status ListParameters(CommandResult* result) override;

  // Use cases.
  Status ListSupportedUseCases(CommandResult* result) override;
  Status Enable(const std::string& name, bool enable, CommandResult* result) override;
  Status IsEnabled(const std::string& name, CommandResult* result) override;
  Status EnableUseCase(IKvox::UseCase use_case, bool enable, CommandResult* result) override;
  Status IsUseCaseEnabled(IKvox::UseCase use_case, CommandResult* result) override;
  Status UseCaseSetGain(const std::string& name, float gain, int32_t ramp_ms,
                        CommandResult* result) override;

  // For developers.
  Status Debug(const std::vector<std::string>& args, CommandResult* result) override;

 private:
  /// Runs `command(Report&)` on a report that continues the result: a use case runs many commands
  /// on one.
  template <typename Command>
  static Status Run(CommandResult* result, Command command) {
    Continue(result, command);
    return Status::ok();
  }
  /// For a command that may wait for the co-processor or a device: others are served meanwhile.
  template <typename Command>
  Status RunWaiting(CommandResult* result, Command command) {
    return Run(result, [&](Report& report) { Wait([&] { command(report); }); });
  }
  /// The same for one that changes something: the flight log keeps it.
  template <typename Command>
  Status RunChange(CommandResult* result, Command command) {
    return RunWaiting(result, [&](Report& report) {
      const CommandNote note(flight_, report);
      command(report);
    });
  }
  template <typename Work>
  void Wait(Work work) {
    call_waits_(true);
    work();
    call_waits_(false);
  }
  template <typename Command>
  static void Continue(CommandResult* result, Command command) {
    Report report{.status = StatusCode{static_cast<int8_t>(result->status)},
                  .value = result->value,
                  .lines = std::move(result->lines)};
    command(report);
    result->status = CommandStatus{static_cast<int8_t>(report.status)};
    result->value = report.value;
    CutToReply(report.lines);
    result->lines = std::move(report.lines);
  }

  /// Runs `operation(KvoxProcessor&)` on a processor; the command reports by its status alone.
  template <typename Operation>
  Status OnProcessor(int32_t id, CommandResult* result, Operation operation);

  // The subcommands of Debug (debug_commands.cc). `args` holds all words.
  using Words = std::vector<std::string>;
  struct DebugWord;
  void DebugBufferInit(const Words& args, Report& report);
  void DebugBufferDeinit(const Words& args, Report& report);
  void DebugBufferDump(const Words& args, Report& report);
  void DebugCapture(const Words& args, Report& report);
  void DebugHealth(Report& report);
  std::vector<BufferPtr> AllBuffers();

  // ProcessorHost.
  void BlockStateChanged(const KvoxProcessor& processor) override {
    wiring_.BlockStateChanged(processor);
  }
  void EndUseCaseOf(std::shared_ptr<const KvoxProcessor> relay) override;
  ThreadGroup& client_threads() override { return client_threads_; }
  ByteBudget& sent_audio_budget() override { return sent_audio_budget_; }

  // Outlive buffers and processors.
  ThreadGroup capture_threads_{kMaxCaptureThreads};
  ThreadGroup client_threads_{kMaxClientThreads, kMaxThreadsOfClient};
  ByteBudget sent_audio_budget_{kMaxSentAudioBytes};

  flight::FlightLog& flight_;
  const std::function<void(bool)> call_waits_;

  Mutex stats_limit_mutex_;  // one request for statistics entries at a time

  Inventory inventory_;
  SavedState saved_;
  Wiring wiring_{inventory_, saved_};
  TapPoints taps_;
  IoSwitch io_;
  Recovery recovery_;
  UseCases use_cases_{*this, inventory_, taps_};  // the last member: its threads run commands
};

}  // namespace kvox
