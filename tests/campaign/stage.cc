#include "tests/campaign/stage.h"

#include <stdexcept>
#include <thread>
#include <utility>

#include "tests/campaign/graph_check.h"

namespace kvox::campaign {
namespace {

constexpr Ms kLook{10};
constexpr Ms kHealthLook{50};

const Stream& FirstOf(Owner owner) {
  for (const Stream& stream : Streams()) {
    if (stream.owner == owner) return stream;
  }
  throw std::logic_error("there is no stream of a kind");
}

}  // namespace

Stage::Stage(unsigned seed, Manner manner)
    : shared_{machine_.caller(), phase_, load_, findings_, model_},
      echoes_(machine_.service()),
      crew_(shared_) {
  SetUp();
  crew_.Halt(Stand::kAnyhow, Ms(0));
  for (const Stream& stream : Streams()) {
    if (stream.owner != Owner::kClient) continue;
    crew_.Start(MakeChanger(shared_, stream, manner, sim()), ++seed);
  }
  crew_.Start(MakeUseCaseSwitcher(shared_, manner, sim()), ++seed);
  crew_.Start(MakeWatcher(shared_), ++seed);
  crew_.Start(MakeWatcher(shared_), ++seed);
  crew_.Start(MakeCapturer(shared_, FirstOf(Owner::kNobody), machine_.home().path()), ++seed);
  const Recovery sound = AudioCheck(sim(), load_).Await(Flowing(true), kRecoveryLimit);
  if (!sound.failure.empty()) {
    throw std::runtime_error("audio does not flow before there is a fault: " + sound.failure);
  }
}

void Stage::SetUp() {
  Asker asker(shared_, "set-up");
  for (const Stream& stream : Streams()) {
    if (stream.owner == Owner::kUseCase || stream.owner == Owner::kSwitched) continue;
    asker.NewProcessor(stream.processor, stream.type);
    asker.Connect(stream.processor, stream.buffer, stream.buffer);
    // A phone booth cannot be enabled in this build.
    if (stream.returns != Returns::kSilence) asker.ProcessorEnable(stream.processor, true);
    asker.ConnectTap(stream, stream.buffer, stream.buffer);
    if (stream.returns == Returns::kEcho) echoes_.Register(stream.processor);
    asker.StartIo(stream.buffer);
    asker.TapEnable(stream, true);
  }
  for (const auto use_case :
       {IKvox::UseCase::MIC_IN, IKvox::UseCase::SPEAKER_OUT, IKvox::UseCase::AREL_TELE}) {
    asker.EnableUseCase(use_case);
  }
  for (const Stream& stream : Streams()) {
    const bool of_use_case = stream.owner == Owner::kSwitched;
    if (of_use_case && stream.returns == Returns::kEcho) echoes_.Register(stream.processor);
  }
  if (findings_.any()) throw std::runtime_error("set-up: " + findings_.all().front());
}

bool Stage::Healthy() {
  const std::string trouble = machine_.Trouble();
  if (!trouble.empty()) findings_.Add("{}", trouble);
  return !findings_.any();
}

bool Stage::Run(Ms time) {
  const auto until = Clock::now() + time;
  while (Clock::now() < until) {
    if (!Healthy()) return false;
    std::this_thread::sleep_for(std::min<Clock::duration>(kHealthLook, until - Clock::now()));
  }
  return Healthy();
}

bool Stage::Halt(Stand stand) {
  const Ms lost_before = load_.Lost();
  std::string busy = crew_.Halt(stand, kGrantLimit);
  if (!busy.empty()) busy = crew_.Halt(stand, load_.Allowance(lost_before));
  if (!busy.empty()) findings_.Add("not granted within {} ms: {}", kGrantLimit.count(), busy);
  return Healthy();
}

bool Stage::AwaitEndOfFaults(Ms limit) {
  const auto until = Clock::now() + limit;
  while (sim().Status().faults_at_work > 0) {
    if (!Healthy()) return false;
    if (Clock::now() > until) {
      findings_.Add("a fault does not end within {} ms", limit.count());
      return false;
    }
    std::this_thread::sleep_for(kLook);
  }
  return Healthy();
}

bool Stage::AwaitRestored(Ms step) {
  const Ms lost_before = load_.Lost();
  const auto begin = Clock::now();
  auto last_step = begin;
  uint64_t steps = machine_.ledger().restored();
  for (;;) {
    if (!Healthy()) return false;
    const auto now = Clock::now();
    if (machine_.ledger().restored() != std::exchange(steps, machine_.ledger().restored())) {
      last_step = now;
    }
    const GraphTables tables = AskTables(machine_.caller());
    const size_t buffers = Streams().size();
    const bool all = tables.tapouts.size() == buffers && tables.injects.size() == buffers;
    if (!all) last_step = now;
    if (now - last_step > step) return true;
    if (now - begin > kGrantLimit + load_.Allowance(lost_before)) {
      findings_.Add(
          "the daemon has not found every device, or does not end its recovery: {} "
          "tap-outs, {} injects of {} each, {} steps",
          tables.tapouts.size(), tables.injects.size(), buffers, steps);
      return false;
    }
    std::this_thread::sleep_for(kLook);
  }
}

StreamList Stage::Flowing(bool with_changing) const {
  const Model model = model_.Copy();
  StreamList flowing;
  for (const Stream& stream : Streams()) {
    const bool changing = stream.owner == Owner::kClient || stream.owner == Owner::kUseCase;
    const TapId tap = {stream.core, stream.tap, stream.index};
    const bool flows = stream.returns == Returns::kSilence || model.Flows(tap, stream.processor);
    if (flows && (with_changing || !changing)) flowing.push_back(&stream);
  }
  return flowing;
}

bool Stage::CheckGraph() {
  const auto differences = Compare(model_.Copy(), AskTables(machine_.caller()), sim().Status());
  for (const std::string& difference : differences) findings_.Add("{}", difference);
  return Healthy();
}

std::optional<Ms> Stage::Restart(const std::string& words) {
  constexpr Ms kRestartLimit{30000};
  phase_.Set(Phase::kDisturbed);
  sim().Fault(words);
  if (!AwaitEndOfFaults(kRestartLimit)) return std::nullopt;
  AudioCheck audio(sim(), load_);
  const Recovery recovery = audio.Await(Flowing(false), kRecoveryLimit);
  if (!recovery.failure.empty()) findings_.Add("after '{}': {}", words, recovery.failure);
  if (!AwaitRestored(kRestoreStep)) return std::nullopt;
  phase_.Set(Phase::kSettling);
  const bool granted = Halt(Stand::kAnyhow);
  phase_.Set(Phase::kCalm);
  Resume();
  return granted ? std::optional(recovery.slowest) : std::nullopt;
}

void Stage::KeepLogs(const std::filesystem::path& directory) {
  shared_.stopping = true;
  machine_.KeepLogs(directory);
  crew_.Stop();
}

}  // namespace kvox::campaign
