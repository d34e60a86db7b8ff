// Faults, one at a time and combined.

#include <fmt/format.h>

#include <cstdio>
#include <thread>

#include "tests/campaign/fault_report.h"
#include "tests/campaign/resource_trend.h"
#include "tests/campaign/run.h"

namespace kvox::campaign {
namespace {

/// A fault that waits for packets or commands gets them within this time.
constexpr Ms kFaultLimit{10000};
/// For a reply while no other client sends commands.
constexpr Ms kPingLimit{200};
/// For audio that was never disturbed, or that was switched on a moment ago.
constexpr Ms kFlowLimit{500};
/// For threads that end by themselves, and for descriptors that are closed after a reply.
constexpr Ms kReleaseLimit{5000};
constexpr Ms kPollInterval{50};
constexpr uint64_t kFaultsPerCheckpoint = 25;

/// The allocator keeps a varying part of what was freed. The soak finds slow growth.
constexpr int64_t kMemorySlackKib = 3072;

class Campaign : public Run {
 public:
  explicit Campaign(const CampaignOptions& options)
      : Run(options, LoadProfile::kAggressive),
        options_(options),
        plan_(options.seed, options.quick, FindFaultKind(options.only)),
        client_(testbed().run(), "campaign") {}

 private:
  bool Body() override;
  void PrintSummary() override {
    report_.Print();
    fmt::print("\n{} faults in {} events\n", report_.faults(), report_.events());
  }

  bool Finished() const;
  bool Survives(const FaultEvent& event);
  bool Inject(const FaultEvent& event);
  bool Recovers(const FaultEvent& event);
  /// What the co-processor may have refused while the daemon set it up again.
  void RestoreTaps(const FaultEvent& event, bool all);
  bool PingsInTime();
  /// Brings everything to the baseline, with every device open.
  bool ReachBaseline();
  bool NothingLeaks();
  bool AtMostBaseline(const ResourceUsage& usage) const;

  const CampaignOptions& options_;
  FaultPlan plan_;
  RetryingClient client_;
  FaultReport report_;
  ResourceUsage baseline_;
};

bool Campaign::Finished() const {
  if (report_.faults() >= options_.count) return true;
  return options_.time > Ms(0) && Seconds() > std::chrono::duration<double>(options_.time).count();
}

bool Campaign::Body() {
  testbed().Resume();
  // The first recovery leaves a thread that waits for the next one.
  if (!testbed().Recover("restart gap=0.1") || !ReachBaseline()) return false;
  baseline_ = testbed().processes().DaemonResources();
  testbed().Resume();
  uint64_t next_checkpoint = kFaultsPerCheckpoint;
  while (!Finished()) {
    const FaultEvent event = plan_.Next();
    if (!Survives(event)) {
      failures().Add("the fault was: {}", event.Text());
      return false;
    }
    if (report_.faults() < next_checkpoint) continue;
    next_checkpoint += kFaultsPerCheckpoint;
    if (!NothingLeaks()) return false;
    fmt::print("{:>6.0f} s  {} faults, {}\n", Seconds(), report_.faults(),
               testbed().processes().DaemonResources().Text());
    std::fflush(stdout);
  }
  return NothingLeaks();
}

bool Campaign::Survives(const FaultEvent& event) {
  report_.Injected(event);
  testbed().run().faults.Enter(FaultState::kActive);
  if (!Inject(event) || !testbed().AwaitEndOfFaults(kFaultLimit)) return false;
  if (!Recovers(event)) return false;
  testbed().run().faults.Enter(FaultState::kNone);
  testbed().Resume();
  return testbed().RunFor(event.pause);
}

bool Campaign::Inject(const FaultEvent& event) {
  for (const auto& part : event.parts) {
    std::this_thread::sleep_for(part.delay);
    for (const std::string& command : part.injection.commands)
      testbed().processes().sim().Fault(command);
    if (part.injection.kills) testbed().processes().ReplaceSimulator(part.injection.away);
  }
  return testbed().RunFor(event.Lasts());
}

/// Audio first, because it is timed; then everything that needs paused clients.
bool Campaign::Recovers(const FaultEvent& event) {
  const AudioCheck audio = testbed().StartAudioCheck();
  RestoreTaps(event, false);
  const auto recovery = testbed().AwaitAudio(audio, testbed().StaticStreams(),
                                             event.RecoveryLimit(), "after a fault");
  if (!recovery) return false;
  const Ms step = event.MayCorruptRestore() ? kUnansweredStep : kRestoreStep;
  if (event.TouchesNodes() && !testbed().AwaitRestored(step)) return false;
  testbed().run().faults.Enter(FaultState::kSettling);
  if (!testbed().Pause(PauseMode::kAsIs)) return false;
  RestoreTaps(event, true);
  if (!PingsInTime() ||
      !testbed().AwaitAudio(testbed().StartAudioCheck(), testbed().AllStreams(), kFlowLimit,
                            "with the clients paused") ||
      !testbed().CheckGraph()) {
    return false;
  }
  report_.Recovered(event, *recovery);
  return true;
}

void Campaign::RestoreTaps(const FaultEvent& event, bool all) {
  if (!event.MayCorruptRestore()) return;
  for (const Stream& stream : Streams()) {
    if (all || stream.control == Control::kStatic) client_.RestoreTap(stream);
  }
}

bool Campaign::PingsInTime() {
  const Ms lag_before = testbed().run().lag.Total();
  const auto begin = Clock::now();
  const bool delivered = testbed().processes().client().Ping();
  const auto time = std::chrono::duration_cast<Ms>(Clock::now() - begin);
  const Ms limit = kPingLimit + testbed().run().lag.Allowance(lag_before);
  if (!delivered || time > limit) {
    failures().Add("Ping: {} after {} ms; the limit is {} ms", delivered ? "returned" : "failed",
                   time.count(), limit.count());
  }
  return testbed().Healthy();
}

bool Campaign::ReachBaseline() {
  const AudioCheck audio = testbed().StartAudioCheck();
  return testbed().Pause(PauseMode::kAtBaseline) &&
         testbed().AwaitAudio(audio, testbed().AllStreams(), kRecoveryLimit, "at the baseline");
}

bool Campaign::AtMostBaseline(const ResourceUsage& usage) const {
  return usage.descriptors <= baseline_.descriptors && usage.threads <= baseline_.threads &&
         (!MemoryIsMeasurable() || usage.memory_kib <= baseline_.memory_kib + kMemorySlackKib);
}

bool Campaign::NothingLeaks() {
  if (!ReachBaseline()) return false;
  const Ms lag_before = testbed().run().lag.Total();
  const auto begin = Clock::now();
  ResourceUsage usage = testbed().processes().DaemonResources();
  while (!AtMostBaseline(usage) &&
         Clock::now() < begin + kReleaseLimit + testbed().run().lag.Allowance(lag_before)) {
    std::this_thread::sleep_for(kPollInterval);
    usage = testbed().processes().DaemonResources();
  }
  if (!AtMostBaseline(usage)) {
    failures().Add("the daemon leaks: {} before, {} now\n{}", baseline_.Text(), usage.Text(),
                   DescribeProcess(testbed().processes().daemon_pid()));
  }
  testbed().Resume();
  return testbed().Healthy();
}

}  // namespace

int RunCampaign(const CampaignOptions& options) {
  return Campaign(options).Execute();
}

}  // namespace kvox::campaign
