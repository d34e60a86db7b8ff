// KvoxService implements the IKvox interface: it owns the buffers, the processors and the memory of
// what clients have set up, finds the co-processor's data devices, and rebuilds everything after
// the co-processor was away.
//
// Locking. wiring_mutex_ comes first: whoever ties, unties, switches or deletes processors holds it
// throughout, so that these never mix. mutex_, the service mutex, guards the tables; under it run
// look-ups and exchanges with the co-processor, never a processor's or a buffer's work. Objects are
// looked up under it and used after it is released, kept alive by their shared_ptr.
//
// Commands may be called from any thread. Their outcome is in the CommandResult; the binder status
// is always OK.
#pragma once

#include <aidl/kvox/BnKvox.h>
#include <sys/inotify.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "buffer/kvox_buffer.h"
#include "kvox/common/mutex.h"
#include "processors/kvox_processor.h"
#include "processors/relay_owner.h"
#include "processors/thread_reaper.h"
#include "service/command_result.h"
#include "service/coprocessor_link.h"
#include "service/device_scan.h"
#include "service/limits.h"
#include "service/recovery_thread.h"
#include "service/tap_point.h"
#include "service/use_cases.h"

namespace kvox {

/// A buffer that clients had enabled, to be enabled again after a recovery.
struct KvoxBufferState {
  int32_t number;
  bool tapout;
  bool enabled;
};

/// Which buffers a processor is tied to; -1 for none.
struct ConnectionState {
  int32_t tapout_buffer = -1;
  int32_t inject_buffer = -1;
};

/// What the service works with. Everything outlives it.
struct ServiceEnvironment {
  CoprocessorLink& link;
  DeviceIo& io;
  LogTarget& io_log;
  std::string device_directory;
  std::function<DeviceScan(const std::string& directory)> scan = ScanDataDevices;
  Recovery::Starter start_recovery = RecoveryThread::Start;
};

class KvoxService final : public aidl::kvox::BnKvox, private TapControl, private RelayOwner {
 public:
  using Status = ndk::ScopedAStatus;

  /// Publishes the instance and runs the first scan on the calling thread, with the pauses that
  /// `pacer` makes.
  KvoxService(const ServiceEnvironment& environment, RecoveryPacer& pacer);
  ~KvoxService() override;

  /// Waits at most about 400 ms until a service exists, else logs an error. Answers -1 always.
  static int WaitForServiceReady();

  /// Hands an event of the device directory to the service, if there is one. Event thread.
  static void DispatchInotifyEvent(const inotify_event* event);

  void HandleInotifyEvent(const inotify_event* event);

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

  // Connections and graph.
  Status Connect(int32_t processor, int32_t tapout, int32_t inject, CommandResult* result) override;
  Status ConnectTap(int32_t core, int32_t tap, int32_t index, int32_t tapout, int32_t inject,
                    CommandResult* result) override;
  Status ListTapOutBuffers(CommandResult* result) override;
  Status ListInjectBuffers(CommandResult* result) override;
  Status ShowGraph(CommandResult* result) override;

  // Audio I/O.
  Status StartIo(int32_t tapout, CommandResult* result) override;
  Status StopIo(int32_t tapout, CommandResult* result) override;

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

  // A client's audio, and statistics.
  Status SendAudio(int32_t id, const IKvox::AudioPacket& packet, CommandResult* result) override;
  Status RegisterReceiveAudioCallback(int32_t id,
                                      const std::shared_ptr<IKvox::IReceiveAudioCallback>& callback,
                                      CommandResult* result) override;
  Status ProcessorSetStatsMaxBufferEntries(int32_t id, int32_t entries,
                                           CommandResult* result) override;
  Status ProcessorGetStats(int32_t id, IKvox::ProcessorStats* stats,
                           CommandResult* result) override;
  Status ProcessorResetStats(int32_t id, CommandResult* result) override;

  // Use cases and gains.
  Status ListSupportedUseCases(CommandResult* result) override;
  Status Enable(const std::string& name, bool enable, CommandResult* result) override;
  Status IsEnabled(const std::string& name, CommandResult* result) override;
  Status EnableUseCase(IKvox::UseCase use_case, bool enable, CommandResult* result) override;
  Status IsUseCaseEnabled(IKvox::UseCase use_case, CommandResult* result) override;
  Status TapSetGain(int32_t core, int32_t tap, int32_t index, float gain, int32_t ramp_ms,
                    CommandResult* result) override;
  Status UseCaseSetGain(const std::string& name, float gain, int32_t ramp_ms,
                        CommandResult* result) override;

  // For developers.
  Status Debug(const std::vector<std::string>& args, CommandResult* result) override;

 private:
  using BufferMap = std::map<int, std::shared_ptr<KvoxBuffer>>;
  using ProcessorMap = std::map<FourCc, std::shared_ptr<KvoxProcessor>>;
  struct BufferTables {
    BufferMap tapouts;
    BufferMap injects;

    /// Switches every buffer off, unties it and empties the tables. No lock may be held.
    void Drop();
  };

  // Discovery (service_discovery.cc).

  /// Up to five scans, each after a pause. Answers what the last one did: 0, or -1 when there was
  /// not one tap-out device or the recovery has to end.
  int32_t ScanWithRetries(RecoveryPacer& pacer);
  int32_t initKvoBuffers(RecoveryPacer& pacer);
  std::vector<std::shared_ptr<KvoxBuffer>> AddBuffers(const DeviceScan& scan) REQUIRES(mutex_);
  bool TakeControlArrival() EXCLUDES(recovery_mutex_);
  void HandleArrival(const char* name);
  void HandleDeparture(const char* name);

  // Restoring what clients had set up (service_restore.cc).

  /// What to bring back in one pass. The first pass after a departure restores everything and shows
  /// what fails; each later one only what the devices that it found were all that was missing for.
  struct RestorePlan {
    std::set<TapKey> taps;
    std::set<FourCc> processors;
    std::set<std::string> buffers;
  };

  /// What a recovery has left to do.
  struct Unfinished {
    struct Opening {
      unsigned number;  // of the next try
      RecoveryClock::time_point due;
    };
    bool everything = true;                   // no pass has restored anything yet
    std::set<TapKey> taps;                    // refused; the control device may not be there yet
    std::map<std::string, Opening> openings;  // of buffers whose devices have not opened yet

    RecoveryClock::time_point NextOpening() const;
  };

  void initKvoWithRetry(RecoveryPacer& pacer);
  void Recover(RecoveryPacer& pacer);
  void RecoverLate(RecoveryPacer& pacer, Unfinished& unfinished);
  void PlanEverything(RestorePlan& plan) EXCLUDES(mutex_);
  void PlanFor(const KvoxBuffer& buffer, RestorePlan& plan) REQUIRES(mutex_);
  void Restore(const RecoveryPacer& pacer, const RestorePlan& plan, Unfinished& unfinished);
  bool RestoreTap(const RecoveryPacer& pacer, TapKey key) EXCLUDES(mutex_);
  void RestoreProcessor(FourCc id) EXCLUDES(wiring_mutex_, mutex_);
  void RestoreBuffer(const RecoveryPacer& pacer, const std::string& name, Unfinished& unfinished)
      EXCLUDES(mutex_);
  void RetryOpenings(const RecoveryPacer& pacer, Unfinished& unfinished) EXCLUDES(mutex_);
  void TryOpening(const RecoveryPacer& pacer, KvoxBuffer& buffer, unsigned number,
                  Unfinished& unfinished) EXCLUDES(mutex_);
  std::shared_ptr<KvoxBuffer> FindWanted(const std::string& name, const KvoxBufferState*& state)
      REQUIRES(mutex_);

  // Shared by the commands.
  std::shared_ptr<KvoxProcessor> GetKvoxProcessor(FourCc id) REQUIRES(mutex_);
  std::shared_ptr<KvoxProcessor> FindProcessor(FourCc id) EXCLUDES(mutex_);
  std::vector<std::shared_ptr<KvoxProcessor>> Processors() EXCLUDES(mutex_);
  std::shared_ptr<KvoxProcessor> TakeProcessor(FourCc id) REQUIRES(wiring_mutex_) EXCLUDES(mutex_);
  void updateWakeLock(CommandResult* result) REQUIRES(mutex_);
  void handleEnableBuffers(bool enable, int tapout, CommandResult* result);
  std::vector<std::shared_ptr<KvoxBuffer>> BuffersFor(int tapout) REQUIRES(mutex_);
  void RecordBufferState(const KvoxBuffer& buffer, bool enable) REQUIRES(mutex_);
  void SwitchAsRecorded(const KvoxBuffer& buffer) EXCLUDES(mutex_);
  void ForgetStatesOfAbsentBuffers(int tapout) REQUIRES(mutex_);

  // Tap points. The Send functions carry a request out whose line has been written, report, and
  // answer whether it succeeded; commands then record it, a recovery does not.
  int32_t getKvoxTapPoints(int core, std::vector<KvoxTapPointState>& taps) EXCLUDES(mutex_);
  int32_t QueryTap(const TapArguments& tap, KvoxTapPointState& state);
  bool SendTapEnable(const TapArguments& tap, bool enable, CommandResult* result) REQUIRES(mutex_);
  bool SendBlockLength(const TapArguments& tap, uint32_t length, CommandResult* result)
      REQUIRES(mutex_);
  bool SendJitterBuffer(const TapArguments& tap, uint32_t size, CommandResult* result)
      REQUIRES(mutex_);
  struct TapSetting;
  bool SendTapSetting(const TapSetting& setting, const TapArguments& tap, uint32_t value,
                      CommandResult* result) REQUIRES(mutex_);
  /// A binding under way: what the lock was needed for is done, the tap-out buffer has yet to be
  /// told the tap point's format.
  struct Binding {
    std::shared_ptr<KvoxBuffer> tapout;  // null when there is no format to tell
    KvoxTapFormat format;
    std::string text;
  };
  enum class Recording { kYes, kNo };
  Binding SendBinding(const TapArguments& tap, int tapout, int inject, Recording recording,
                      CommandResult* result) REQUIRES(mutex_);
  void FinishBinding(Binding binding, CommandResult* result) EXCLUDES(mutex_);
  void sprintTapInfo(const KvoxTapPointState& state, std::string& text) REQUIRES(mutex_);
  std::optional<KvoxTapPointState> GetTapPointConnectedToBuffer(const KvoxBuffer& buffer)
      EXCLUDES(mutex_);

  void ConnectProcessor(FourCc id, int tapout, int inject, Recording recording,
                        CommandResult* result) REQUIRES(wiring_mutex_) EXCLUDES(mutex_);

  // Use cases (use_case_commands.cc).
  void SwitchUseCase(IKvox::UseCase use_case, bool enable, CommandResult* result);
  void SwitchInTurn(IKvox::UseCase use_case, bool enable, CommandResult* result)
      EXCLUDES(use_case_mutex_);
  class UseCaseTurn;
  void RunSteps(std::span<const UseCaseStep> steps, CommandResult* result);
  void RunStep(const UseCaseStep& step, CommandResult* result);

  // RelayOwner.
  int32_t DisableUseCaseOf(const KvoxProcessor& relay) override;
  ThreadReaper& client_threads() override { return client_threads_; }
  ByteBudget& sent_audio_room() override { return sent_audio_room_; }

  // What the words of Debug do (debug_commands.cc). `args` holds all of them.
  using Words = std::vector<std::string>;
  struct DebugWord;
  void DebugBufferInit(const Words& args, CommandResult* result);
  void DebugBufferDeinit(const Words& args, CommandResult* result);
  void DebugBufferDump(const Words& args, CommandResult* result);
  void handleCapture(const Words& args, CommandResult* result);

  // TapControl.
  int32_t SetTapBlockLength(const KvoxBuffer& buffer, uint32_t frames) override;
  int32_t SetTapJitterBuffer(const KvoxBuffer& buffer, uint32_t size) override;

  const ServiceEnvironment environment_;
  ThreadReaper capture_threads_{kMaxCaptureThreads};  // outlives the buffers below
  ByteBudget sent_audio_room_{kMaxSentAudioBytes};    // and so does this
  const BufferEnvironment buffer_environment_;

  ThreadReaper client_threads_{kMaxClientThreads,
                               kMaxThreadsOfClient};  // of relays; outlives the processors below

  Mutex use_case_mutex_;  // held for a look only
  CondVar use_case_switched_;
  bool use_case_switching_ GUARDED_BY(use_case_mutex_) = false;
  bool telephony_enabled_ GUARDED_BY(use_case_mutex_) = false;

  Mutex wiring_mutex_ ACQUIRED_BEFORE(mutex_);
  /// Processors that a recovery left disabled because their buffers are not back. They stay noted
  /// through further departures, until they are tied again or a client switches or deletes them: a
  /// client that has not disabled its processor wants its audio back, however long that takes.
  std::set<FourCc> to_enable_again_ GUARDED_BY(wiring_mutex_);

  /// A leaf lock: devices that come and go are noted at once, whatever runs under the others.
  Mutex recovery_mutex_;
  std::unique_ptr<Recovery> recovery_ GUARDED_BY(recovery_mutex_);
  bool control_arrived_ GUARDED_BY(recovery_mutex_) = false;  // since the recovery's last scan

  Mutex mutex_;
  bool ready_ GUARDED_BY(mutex_) = false;  // at least one buffer of each kind was found
  ProcessorMap processors_ GUARDED_BY(mutex_);
  BufferTables buffers_ GUARDED_BY(mutex_);
  TapMap taps_ GUARDED_BY(mutex_);
  std::map<std::string, KvoxBufferState> buffer_states_ GUARDED_BY(mutex_);
  std::map<FourCc, ConnectionState> connections_ GUARDED_BY(mutex_);
};

}  // namespace kvox
