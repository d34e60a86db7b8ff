// A client that repeats each command until the daemon has acknowledged it, and then updates the
// expected graph. A command that is refused while no fault is active is a failure of the run.
#pragma once

#include <functional>
#include <string>
#include <utility>

#include "kvox/common/mutex.h"
#include "tests/campaign/run_context.h"
#include "tests/campaign/streams.h"

namespace kvox::campaign {

/// One thread, except for Pending(). Commands return whether they were acknowledged: false only
/// when the run ends.
class RetryingClient {
 public:
  RetryingClient(RunContext& run, std::string name) : run_(run), name_(std::move(name)) {}

  bool NewProcessor(FourCc id, FourCc type);
  bool DeleteProcessor(FourCc id);
  bool ProcessorEnable(FourCc id, bool enable);
  bool Connect(FourCc id, int tapout, int inject);
  bool ConnectTap(const Stream& stream, int tapout, int inject);
  bool TapEnable(const Stream& stream, bool enable);
  bool TapSetBlockLength(const Stream& stream, uint32_t frames);
  bool TapSetJitterBuffer(const Stream& stream, uint32_t size);
  bool StartIo(int tapout);
  bool StopIo(int tapout);
  bool EnableUseCase(UseCase use_case);
  bool DisableUseCase(UseCase use_case);

  /// Requests again what the expected graph says of a tap point. No other client may change that
  /// tap point while this runs.
  bool RestoreTap(const Stream& stream);

  /// A command that changes nothing, once.
  CommandReply Query(const char* name, const std::function<CommandReply()>& call);

  const std::string& name() const { return name_; }
  /// The command that is not acknowledged yet, with the last reply; empty when there is none. Any
  /// thread.
  std::string Pending() const;

 private:
  /// The conditions under which a command was sent.
  struct Moment {
    FaultClock::Epoch epoch;
    Ms lag;
  };
  Moment Now() const { return {run_.faults.epoch(), run_.lag.Total()}; }

  template <typename Update, typename Method, typename... Arguments>
  bool Request(const char* name, const Update& update, Method method,
               const Arguments&... arguments);
  template <typename Method, typename... Arguments>
  bool TapRequest(const char* name, const Stream& stream,
                  const std::function<void(ExpectedGraph&)>& update, Method method,
                  const Arguments&... arguments);
  void JudgeRefusal(const char* name, const Moment& sent, const CommandReply& reply);
  void SetPending(std::string text);

  RunContext& run_;
  const std::string name_;
  mutable Mutex mutex_;
  std::string pending_ GUARDED_BY(mutex_);
};

}  // namespace kvox::campaign
