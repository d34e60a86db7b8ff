// Clients that change the graph.

#include <array>
#include <thread>

#include "kvox/common/command_tables.h"
#include "tests/campaign/workers.h"

namespace kvox::campaign {
namespace {

constexpr Ms kLastPacketLimit{2500};  // the simulator gives a packet up after two seconds
constexpr Ms kPollInterval{10};

/// Waits until what was sent is back or given up.
void AwaitLastPackets(const Stream& stream, const SimControl& sim) {
  const auto until = Clock::now() + kLastPacketLimit;
  try {
    while (Clock::now() < until && sim.Status().taps[stream.TapName()].in_flight > 0) {
      std::this_thread::sleep_for(kPollInterval);
    }
  } catch (const SimError&) {
    // The testbed detects that the simulator is gone.
  }
}

class GraphMutator : public Worker {
 public:
  GraphMutator(RunContext& run, const Stream& stream, LoadProfile profile, const SimControl& sim)
      : Worker(run, "mutator of " + stream.TapName()),
        stream_(stream),
        profile_(profile),
        sim_(sim) {}

  void Step(std::mt19937& random) override {
    static constexpr std::array kChanges = {
        &GraphMutator::ToggleTap,        &GraphMutator::ToggleProcessor,
        &GraphMutator::ToggleConnection, &GraphMutator::ToggleBinding,
        &GraphMutator::Recreate,         &GraphMutator::ToggleIo,
        &GraphMutator::SetBlockLength,   &GraphMutator::SetJitterBuffer};
    const auto change = kChanges[random() % kChanges.size()];
    if (!StopAudio()) return;
    (this->*change)(random);
    StartAudio();
  }

  void RestoreBaseline() override {
    tap_wanted_ = true;
    if (StopAudio() && (Connected() || Connect(stream_.buffer)) &&
        (Now().processor.enabled || client_.ProcessorEnable(stream_.processor, true)) &&
        (Bound() || Bind(stream_.buffer)) && (IoIsOn() || client_.StartIo(stream_.buffer)) &&
        client_.TapSetBlockLength(stream_, kDefaultBlockLength)) {
      StartAudio();
    }
  }

 private:
  static constexpr uint32_t kBlockLengths[] = {4800, 3840, 2880};  // whole runs of 480

  /// What was acknowledged last.
  struct State {
    ExpectedTap tap;
    ExpectedProcessor processor;
    bool io_on;
  };
  State Now() const {
    const ExpectedGraph graph = run_.graph.Copy();
    return {graph.TapOf(stream_), graph.ProcessorOf(stream_),
            graph.tapouts().contains(stream_.buffer)};
  }
  bool Connected() const { return Now().processor.tapout != kNone; }
  bool Bound() const { return Now().tap.tapout != kNone; }
  bool IoIsOn() const { return Now().io_on; }

  // These return whether it was acknowledged.
  bool Connect(int buffer) {
    if (!client_.Connect(stream_.processor, buffer, buffer)) return false;
    // A recovery may have left it disabled: it stays as its client leaves it.
    if (Now().processor.enabled && !client_.ProcessorEnable(stream_.processor, true)) return false;
    return buffer == kNone || !IoIsOn() || client_.StartIo(buffer);  // the inject buffer too
  }
  bool Bind(int buffer) { return client_.ConnectTap(stream_, buffer, buffer); }

  /// A lossless change is made while no audio flows; audio is started only when its whole path is
  /// set up.
  bool StopAudio() {
    if (profile_ == LoadProfile::kAggressive || !Now().tap.enabled) return true;
    if (!client_.TapEnable(stream_, false)) return false;
    AwaitLastPackets(stream_, sim_);
    return true;
  }
  void StartAudio() {
    const State now = Now();
    const bool complete = now.processor.tapout != kNone && now.tap.tapout != kNone && now.io_on;
    const bool on = tap_wanted_ && (profile_ == LoadProfile::kAggressive || complete);
    if (now.tap.enabled != on) client_.TapEnable(stream_, on);
  }

  // The changes.
  void ToggleTap(std::mt19937&) { tap_wanted_ = !tap_wanted_; }
  void ToggleProcessor(std::mt19937&) {
    client_.ProcessorEnable(stream_.processor, !Now().processor.enabled);
  }
  void ToggleConnection(std::mt19937&) { Connect(Connected() ? kNone : stream_.buffer); }
  void ToggleBinding(std::mt19937&) { Bind(Bound() ? kNone : stream_.buffer); }
  void ToggleIo(std::mt19937&) {
    if (IoIsOn()) {
      client_.StopIo(stream_.buffer);
    } else {
      client_.StartIo(stream_.buffer);
    }
  }
  void SetBlockLength(std::mt19937& random) {
    client_.TapSetBlockLength(stream_, kBlockLengths[random() % std::size(kBlockLengths)]);
  }
  void SetJitterBuffer(std::mt19937& random) {
    client_.TapSetJitterBuffer(stream_, static_cast<uint32_t>(random() % 1000));
  }
  void Recreate(std::mt19937&) {
    const ExpectedProcessor before = Now().processor;
    const bool connected = before.tapout != kNone;
    if (connected && !Connect(kNone)) return;
    if (!client_.DeleteProcessor(stream_.processor)) return;
    if (!client_.NewProcessor(stream_.processor, stream_.type)) return;
    if (connected && !Connect(stream_.buffer)) return;
    if (before.enabled) client_.ProcessorEnable(stream_.processor, true);
  }

  const Stream& stream_;
  const LoadProfile profile_;
  const SimControl& sim_;
  bool tap_wanted_ = true;
};

class UseCaseToggler : public Worker {
 public:
  UseCaseToggler(RunContext& run, const Stream& stream, LoadProfile profile, const SimControl& sim)
      : Worker(run, "use case of " + stream.TapName()),
        stream_(stream),
        profile_(profile),
        sim_(sim) {}

  void Step(std::mt19937&) override {
    if (on_) {
      Disable();
    } else {
      RestoreBaseline();
    }
  }
  void RestoreBaseline() override { on_ = on_ || client_.EnableUseCase(*stream_.use_case); }
  Ms Interval() const override { return Ms(300); }

 private:
  void Disable() {
    if (profile_ == LoadProfile::kLossless) {
      if (!client_.TapEnable(stream_, false)) return;
      AwaitLastPackets(stream_, sim_);
    }
    on_ = !client_.DisableUseCase(*stream_.use_case);
  }

  const Stream& stream_;
  const LoadProfile profile_;
  const SimControl& sim_;
  bool on_ = true;
};

}  // namespace

std::unique_ptr<Worker> MakeGraphMutator(RunContext& run, const Stream& stream, LoadProfile profile,
                                         const SimControl& sim) {
  return std::make_unique<GraphMutator>(run, stream, profile, sim);
}

std::unique_ptr<Worker> MakeUseCaseToggler(RunContext& run, const Stream& stream,
                                           LoadProfile profile, const SimControl& sim) {
  return std::make_unique<UseCaseToggler>(run, stream, profile, sim);
}

}  // namespace kvox::campaign
