// Faults, one at a time and combined.

#include <fmt/format.h>

#include <algorithm>
#include <cstdio>
#include <thread>

#include "tests/campaign/client_part.h"
#include "tests/campaign/fault_report.h"
#include "tests/campaign/loss_report.h"
#include "tests/campaign/resource_trend.h"
#include "tests/campaign/run.h"

namespace kvox::campaign {
namespace {

/// A fault that waits for packets or commands gets them within this time.
constexpr Ms kFaultLimit{10000};
/// For audio that was never disturbed, or that was switched on a moment ago.
constexpr Ms kFlowLimit{500};
/// For threads that end by themselves, and for descriptors that are closed after a reply.
constexpr Ms kReleaseLimit{5000};
constexpr Ms kPollInterval{50};
/// After that all losses are counted, and their causes logged.
constexpr Ms kLossesKnown{2500};
constexpr uint64_t kFaultsPerCheckpoint = 25;

/// The allocator keeps a varying part of what was freed. The soak finds slow growth.
constexpr int64_t kMemorySlackKib = 3072;

class Campaign : public Run {
 public:
  explicit Campaign(const CampaignOptions& options)
      : Run(options, LoadProfile::kAggressive),
        options_(options),
        plan_(options.seed, options.quick, FindFaultKind(options.only)),
        client_(testbed()) {}

 private:
  bool Body() override;
  void PrintSummary() override {
    report_.Print();
    fmt::print("\n{} faults in {} events; slowest return of audio {} ms, {} ms without a node\n",
               report_.faults(), report_.events(), report_.slowest().count(),
               client_.slowest_without_node().count());
  }

  bool Finished() const;
  bool Survives(const FaultEvent& event);
  bool Inject(const FaultEvent& event);
  bool Recovers(const FaultEvent& event);
  /// What the co-processor may have refused while the daemon set it up again.
  void RestoreTaps(const FaultEvent& event, bool all);
  /// Whether no stream has lost a packet that no client changes.
  bool AudioWasKept(const LossSample& before, unsigned stalls_before);
  LossSample TakeSample() {
    return {testbed().processes().sim().Status(), testbed().processes().log()};
  }
  /// Brings everything to the baseline, with every device open.
  bool ReachBaseline();
  bool NothingLeaks();
  bool AtMostBaseline(const ResourceUsage& usage) const;

  const CampaignOptions& options_;
  FaultPlan plan_;
  ClientPart client_;
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
  const LossSample before = TakeSample();
  const unsigned stalls_before = testbed().run().lag.Stalls();
  if (!Inject(event) || !testbed().AwaitEndOfFaults(kFaultLimit)) return false;
  if (event.KeepsAudio() && !AudioWasKept(before, stalls_before)) return false;
  if (!Recovers(event)) return false;
  testbed().run().faults.Enter(FaultState::kNone);
  if (event.HasClient()) {
    client_.RestoreStreams();
    if (!testbed().AwaitAudio(testbed().StartAudioCheck(), testbed().AllStreams(), kFlowLimit,
                              "with all streams restored")) {
      return false;
    }
  }
  testbed().Resume();
  return testbed().RunFor(event.pause);
}

bool Campaign::Inject(const FaultEvent& event) {
  for (const auto& part : event.parts) {
    std::this_thread::sleep_for(part.delay);
    if (part.injection.client != nullptr) {
      (client_.*part.injection.client)(part.injection);
      continue;
    }
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
  const SimStatus paused = testbed().processes().sim().Status();
  if (!testbed().CheckLookUps() ||
      !testbed().AwaitAudio(testbed().StartAudioCheck(), testbed().AllStreams(), kFlowLimit,
                            "with the clients paused") ||
      !testbed().CheckGraph() || !testbed().CheckFlow(paused)) {
    return false;
  }
  report_.Recovered(event, *recovery);
  return true;
}

void Campaign::RestoreTaps(const FaultEvent& event, bool all) {
  if (!event.MayCorruptRestore()) return;
  for (const Stream& stream : Taps()) {
    if (all || stream.control == Control::kStatic) client_.client().RestoreTap(stream);
  }
}

/// What has not come back counts as missing after two seconds, and the log names slow clients of
/// relays within one. A machine that stalled may have kept anything from coming back.
bool Campaign::AudioWasKept(const LossSample& before, unsigned stalls_before) {
  const auto until = Clock::now() + kLossesKnown;
  for (;;) {
    if (!testbed().Healthy()) return false;
    const LossSample now = TakeSample();
    const LossReport report = LossesBetween(before, now, testbed().StaticStreams());
    const auto waits = [&](const Stream* stream) {
      return now.sim.taps.at(stream->TapName()).in_flight > 1;
    };
    if (report.lost == 0 && std::ranges::none_of(testbed().StaticStreams(), waits)) return true;
    if (Clock::now() > until) {
      if (report.lost == 0 || testbed().run().lag.Stalls() != stalls_before) return true;
      for (const std::string& stream : report.streams) {
        failures().Add("packets were lost, but the fault concerns no audio: {}", stream);
      }
      return false;
    }
    std::this_thread::sleep_for(kPollInterval);
  }
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
