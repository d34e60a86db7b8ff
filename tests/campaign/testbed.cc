#include "tests/campaign/testbed.h"

#include <stdexcept>
#include <thread>
#include <utility>

#include "tests/campaign/graph_check.h"

namespace kvox::campaign {
namespace {

/// For a command that must succeed once no fault is active: the co-processor replies within 500 ms
/// or never, and several commands may be queued.
constexpr Ms kGrantLimit{5000};
constexpr Ms kPollInterval{10};
constexpr Ms kHealthInterval{50};

/// For a look-up, a process and a connection for it included, while other clients send commands.
constexpr Ms kLookUpLimit{200};
/// Starting a process may take longer, but not each time.
constexpr int kLookUpAttempts = 3;
/// How long packets are counted, and how often if others came than expected.
constexpr Ms kFlowTime{400};
constexpr int kFlowSamples = 4;

}  // namespace

Testbed::Testbed(unsigned seed, LoadProfile profile)
    : run_{processes_.client()}, loopback_(processes_.service()), workers_(run_) {
  SetUpGraph();
  workers_.Pause(PauseMode::kAsIs, Ms(0));
  for (const Stream& stream : Streams()) {
    if (stream.control == Control::kMutated) {
      workers_.Start(MakeGraphMutator(run_, stream, profile, processes_.sim()), ++seed);
    } else if (stream.control == Control::kToggled) {
      workers_.Start(MakeUseCaseToggler(run_, stream, profile, processes_.sim()), ++seed);
    }
  }
  workers_.Start(MakeObserver(run_), ++seed);
  workers_.Start(MakeObserver(run_), ++seed);
  workers_.Start(MakeCaptureClient(run_, Streams().front(), processes_.home()), ++seed);
  if (!AwaitAudio(StartAudioCheck(), AllStreams(), kRecoveryLimit, "before the first fault")) {
    throw std::runtime_error(run_.failures.all().front());
  }
}

void Testbed::SetUpGraph() {
  RetryingClient client(run_, "set-up");
  for (const FanOut& fan_out : FanOuts()) {
    client.NewProcessor(fan_out.processor, MakeFourCc("pass"));
    client.Connect(fan_out.processor, fan_out.tapout, fan_out.inject);
    client.ProcessorEnable(fan_out.processor, true);
  }
  for (const Stream& stream : Streams()) {
    if (stream.use_case) {
      const bool is_new = !run_.graph.Copy().processors().contains(stream.processor);
      if (is_new) client.EnableUseCase(*stream.use_case);
    } else {
      client.NewProcessor(stream.processor, stream.type);
      client.Connect(stream.processor, stream.buffer, stream.buffer);
      // A phone booth cannot be enabled in this build.
      if (stream.returns != Returns::kSilence) client.ProcessorEnable(stream.processor, true);
      client.ConnectTap(stream, stream.buffer, stream.buffer);
      client.StartIo(stream.buffer);
      client.TapEnable(stream, true);
    }
    if (stream.returns == Returns::kEcho) loopback_.Register(stream.processor);
  }
  if (run_.failures.any()) throw std::runtime_error("set-up: " + run_.failures.all().front());
}

bool Testbed::Healthy() {
  const std::string problem = processes_.Problem();
  if (!problem.empty()) run_.failures.Add("{}", problem);
  return !run_.failures.any();
}

bool Testbed::RunFor(Ms time) {
  const auto until = Clock::now() + time;
  while (Clock::now() < until) {
    if (!Healthy()) return false;
    std::this_thread::sleep_for(std::min<Clock::duration>(kHealthInterval, until - Clock::now()));
  }
  return Healthy();
}

bool Testbed::Pause(PauseMode mode) {
  const Ms lag_before = run_.lag.Total();
  std::string busy = workers_.Pause(mode, kGrantLimit);
  if (!busy.empty()) busy = workers_.Pause(mode, run_.lag.Allowance(lag_before));
  if (!busy.empty()) run_.failures.Add("not granted within {} ms: {}", kGrantLimit.count(), busy);
  return Healthy();
}

bool Testbed::AwaitEndOfFaults(Ms limit) {
  const auto until = Clock::now() + limit;
  while (processes_.sim().Status().active_faults > 0) {
    if (!Healthy()) return false;
    if (Clock::now() > until) {
      run_.failures.Add("a fault does not end within {} ms", limit.count());
      return false;
    }
    std::this_thread::sleep_for(kPollInterval);
  }
  return Healthy();
}

bool Testbed::AwaitRestored(Ms step) {
  const Ms lag_before = run_.lag.Total();
  const auto begin = Clock::now();
  auto last_step = begin;
  uint64_t steps = processes_.log().restored();
  const size_t tapouts = Streams().size();
  const size_t injects = InjectNumbers().size();
  while (Healthy()) {
    const auto now = Clock::now();
    const GraphTables tables = ReadTables(processes_.client());
    const bool found_all = tables.tapouts.size() == tapouts && tables.injects.size() == injects;
    const bool restoring = processes_.log().restored() != steps;
    steps = processes_.log().restored();
    if (restoring || !found_all) last_step = now;
    if (now - last_step > step) return true;
    if (now - begin > kGrantLimit + run_.lag.Allowance(lag_before)) {
      run_.failures.Add(
          "the daemon has not found every device, or does not end its recovery: {} of {} "
          "tap-outs, {} of {} injects, {} steps",
          tables.tapouts.size(), tapouts, tables.injects.size(), injects, steps);
    }
    std::this_thread::sleep_for(kPollInterval);
  }
  return false;
}

StreamList Testbed::Flowing(bool with_changing) const {
  const ExpectedGraph graph = run_.graph.Copy();
  StreamList flowing;
  for (const Stream& stream : Taps()) {
    const bool flows = stream.returns == Returns::kSilence || graph.Flows(stream);
    const bool wanted = with_changing || stream.control == Control::kStatic;
    if (flows && wanted) flowing.push_back(&stream);
  }
  return flowing;
}

std::optional<Ms> Testbed::AwaitAudio(const AudioCheck& audio, const StreamList& streams, Ms limit,
                                      const std::string& when) {
  const Recovery recovery = audio.Await(streams, limit);
  if (!recovery.failure.empty()) run_.failures.Add("audio {}: {}", when, recovery.failure);
  return Healthy() ? std::optional(recovery.slowest) : std::nullopt;
}

bool Testbed::CheckGraph() {
  for (const std::string& difference :
       Differences(run_.graph.Copy(), ReadTables(processes_.client()), processes_.sim().Status())) {
    run_.failures.Add("{}", difference);
  }
  return Healthy();
}

bool Testbed::CheckFlow(SimStatus before) {
  const ExpectedGraph graph = run_.graph.Copy();
  std::vector<std::string> differences;
  for (int sample = 0; sample < kFlowSamples; ++sample) {
    SimStatus now = processes_.sim().Status();
    differences = FlowDifferences(graph, before, now);
    if (differences.empty()) return Healthy();
    before = std::move(now);
    if (!RunFor(kFlowTime)) return false;
  }
  for (const std::string& difference : differences) run_.failures.Add("{}", difference);
  return false;
}

bool Testbed::CheckLookUps() {
  static const std::vector<std::string> kLookUps[] = {
      {"Ping"}, {"ListProcessors"}, {"ListTapOutBuffers"}, {"ProcessorIsEnabled", "ps00"}};
  for (const std::vector<std::string>& look_up : kLookUps) {
    std::string late;
    for (int attempt = 0; attempt < kLookUpAttempts; ++attempt) {
      late = LookUp(look_up);
      if (late.empty()) break;
    }
    if (!late.empty()) run_.failures.Add("{}: {}", look_up.front(), late);
  }
  return Healthy();
}

/// From a process of its own: a process has only so many calls in flight, and its other clients
/// wait for the co-processor. Returns what was wrong; "" when nothing was.
std::string Testbed::LookUp(const std::vector<std::string>& words) {
  const Ms lag_before = run_.lag.Total();
  const auto begin = Clock::now();
  const auto status = processes_.CallFromAnotherProcess(words, kLookUpLimit * 10);
  const auto time = std::chrono::duration_cast<Ms>(Clock::now() - begin);
  const Ms limit = kLookUpLimit + run_.lag.Allowance(lag_before);
  if (status == 0 && time <= limit) return "";
  return fmt::format("status {} after {} ms, {} times in a row; the limit is {} ms",
                     status.value_or(-1), time.count(), kLookUpAttempts, limit.count());
}

std::optional<Ms> Testbed::Recover(const std::string& fault) {
  constexpr Ms kFaultLimit{30000};
  run_.faults.Enter(FaultState::kActive);
  processes_.sim().Fault(fault);
  if (!AwaitEndOfFaults(kFaultLimit)) return std::nullopt;
  const auto recovery =
      AwaitAudio(StartAudioCheck(), StaticStreams(), kRecoveryLimit, "after '" + fault + "'");
  if (!recovery || !AwaitRestored(kRestoreStep)) return std::nullopt;
  run_.faults.Enter(FaultState::kSettling);
  const bool granted = Pause(PauseMode::kAsIs);
  run_.faults.Enter(FaultState::kNone);
  Resume();
  return granted ? recovery : std::nullopt;
}

void Testbed::KeepLogs(const std::filesystem::path& directory) {
  run_.stopping = true;
  processes_.KeepLogs(directory);
  workers_.Stop();
}

}  // namespace kvox::campaign
