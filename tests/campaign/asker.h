// A client that insists: it asks until the daemon has acknowledged, and then notes in the model
// what it got. A refusal while nothing is disturbed is a finding.
#pragma once

#include <atomic>
#include <functional>
#include <mutex>
#include <string>

#include "tests/campaign/caller.h"
#include "tests/campaign/findings.h"
#include "tests/campaign/model.h"
#include "tests/campaign/phase.h"
#include "tests/campaign/streams.h"

namespace kvox::campaign {

/// The model, for several threads.
class SharedModel {
 public:
  void Note(const std::function<void(Model&)>& note) {
    const std::lock_guard lock(mutex_);
    note(model_);
  }
  Model Copy() const {
    const std::lock_guard lock(mutex_);
    return model_;
  }

 private:
  mutable std::mutex mutex_;
  Model model_;
};

/// What askers share. Outlives them.
struct Shared {
  Caller& caller;
  const PhaseClock& phase;
  const LoadMeter& load;
  Findings& findings;
  SharedModel& model;
  std::atomic<bool> stopping = false;
  std::atomic<uint64_t> commands = 0;
  std::atomic<uint64_t> refused = 0;  // while that was to be expected
  std::atomic<uint64_t> starved = 0;  // while the machine had no processor for the co-processor
};

/// One thread. Every command answers whether it was acknowledged; false only when the run ends.
class Asker {
 public:
  Asker(Shared& shared, std::string name) : shared_(shared), name_(std::move(name)) {}

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
  /// Only those whose steps the model knows: MIC_IN, SPEAKER_OUT, AREL_TELE.
  bool EnableUseCase(IKvox::UseCase use_case);
  /// Waits until nothing is disturbed: what a use case that ends finds away is not ended.
  bool DisableUseCase(IKvox::UseCase use_case);

  /// A question that changes nothing.
  Answer Look(const char* name, const std::function<Answer()>& ask);

  /// What is asked for and not yet granted, with the last answer; empty when there is none.
  std::string Pending() const;

 private:
  enum class Accept {
    kAnyTime,
    /// What the command does depends on what is there at the moment, so an answer that was given
    /// while devices were coming and going does not count.
    kUndisturbed,
  };
  using Note = std::function<void(Model&)>;
  /// How things stood when a question was asked.
  struct Moment {
    unsigned mark;
    Ms lost;
  };
  Moment Now() const { return {shared_.phase.mark(), shared_.load.Lost()}; }
  void JudgeRefusal(const char* name, const Moment& asked, const Answer& answer);
  bool Insist(const char* name, Accept accept, const std::function<Answer()>& ask,
              const Note& note);
  void SetPending(std::string text);
  unsigned WaitUndisturbed() const;

  Shared& shared_;
  const std::string name_;
  mutable std::mutex pending_mutex_;
  std::string pending_;
};

}  // namespace kvox::campaign
