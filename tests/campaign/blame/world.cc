#include "tests/campaign/blame/world.h"

#include <aidl/kvox/BnKvox.h>
#include <android/binder_manager.h>
#include <android/binder_process.h>
#include <kvox_host/binder_host.h>
#include <pthread.h>
#include <sched.h>

#include <chrono>
#include <fstream>
#include <functional>
#include <stdexcept>
#include <thread>

#include "interface/service_name.h"
#include "kvox/common/four_cc.h"
#include "kvox/common/kvox_utils.h"
#include "platform/platform.h"
#include "tests/support/proc.h"

namespace kvox::campaign {
namespace {

/// The first stream has eight channels, so that a device that is not read is full soon.
constexpr char kScenario[] = R"(cores = [2]
tapouts = [0, 1, 2]
injects = [0, 1, 2]
tap = [
  { name = 'genp', index = 0, core = 2, block_length = 960, channels = 8, source = { kind = "noise" } },
  { name = 'genp', index = 1, core = 2, block_length = 960, source = { kind = "noise", seed = 2 } },
  { name = 'genp', index = 2, core = 2, block_length = 960, source = { kind = "noise", seed = 3 } },
]
)";

constexpr int kCore = 2;
constexpr auto kGen = static_cast<int32_t>(MakeFourCc("genp"));
constexpr int32_t kNone = -1;
constexpr auto kLate = std::chrono::milliseconds(25);
constexpr auto kAway = std::chrono::milliseconds(70);
constexpr uint64_t kHogNs = 30'000'000;
constexpr uint32_t kBlockFrames = 960;

consteval int32_t Code(const char (&id)[5]) {
  return static_cast<int32_t>(MakeFourCc(id));
}

}  // namespace

class BlameWorld::Client : public IKvox::BnReceiveAudioCallback {
 public:
  explicit Client(std::shared_ptr<std::atomic<bool>> late) : late_(std::move(late)) {}
  ndk::ScopedAStatus ReceiveAudio(const IKvox::AudioPacket&) override {
    if (late_->exchange(false)) std::this_thread::sleep_for(kLate);
    return ndk::ScopedAStatus::ok();
  }

 private:
  const std::shared_ptr<std::atomic<bool>> late_;
};

BlameWorld::BlameWorld() {
  std::ofstream(home_ / "scenario.toml") << kScenario;
  simulator_ = std::make_unique<Process>(
      KVOSIM_PROGRAM, std::vector<std::string>{"--scenario", home_ / "scenario.toml"},
      home_ / "kvosim");
  sim_ = std::make_unique<SimControl>(home_ / "dev");
  const bool up = WaitFor([&] {
    try {
      return sim_->Status().taps.size() == 3;
    } catch (const SimError&) {
      return false;
    }
  });
  if (!up) throw std::runtime_error("kvosim does not come up: " + simulator_->Err());
  sched_param priority{.sched_priority = sched_get_priority_min(SCHED_FIFO)};
  sched_setscheduler(simulator_->pid(), SCHED_FIFO, &priority);  // a co-processor never waits
  daemon_ =
      std::make_unique<Process>(KVOXD_BURN_PROGRAM, std::vector<std::string>{}, home_ / "kvoxd");
  kvox_ = IKvox::fromBinder(ndk::SpAIBinder(AServiceManager_getService(KvoxDescriptor())));
  if (!kvox_) throw std::runtime_error("kvoxd does not serve: " + ServiceError());
  ABinderProcess_setThreadPoolMaxThreadCount(1);
  ABinderProcess_startThreadPool();
  StartStream(0, Code("ps00"), Code("pass"));
  StartStream(1, Code("rl01"), Code("arel"));
  StartStream(2, Code("bn02"), Code("burn"));
}

BlameWorld::~BlameWorld() {
  kvox_.reset();
  daemon_.reset();
  kvox_host::StopBinder();
}

template <typename Method, typename... Arguments>
void BlameWorld::Do(const char* what, Method method, Arguments... arguments) {
  IKvox::CommandResult result;
  const bool delivered = std::invoke(method, *kvox_, arguments..., &result).isOk();
  if (delivered && result.status == IKvox::CommandStatus::OK) return;
  throw std::runtime_error(std::string(what) +
                           " failed: " + (result.lines.empty() ? "no reply" : result.lines.back()));
}

void BlameWorld::StartStream(int number, int32_t id, int32_t type) {
  Do("NewProcessorWithType", &IKvox::NewProcessorWithType, id, type);
  if (type == Code("arel")) {
    IKvox::ParamValue frames;
    frames.set<IKvox::ParamValue::i>(static_cast<int32_t>(kBlockFrames));
    Do("SetParameter", &IKvox::SetParameter, id, IKvox::ParameterId::BLOCK_LENGTH, 0, frames);
    client_ = ndk::SharedRefBase::make<Client>(client_late_);
    const std::shared_ptr<IKvox::IReceiveAudioCallback> callback = client_;
    Do("RegisterReceiveAudioCallback", &IKvox::RegisterReceiveAudioCallback, id, callback);
  }
  Do("ConnectTap", &IKvox::ConnectTap, kCore, kGen, number, number, number);
  Do("Connect", &IKvox::Connect, id, number, number);
  Do("ProcessorEnable", &IKvox::ProcessorEnable, id, true);
  Do("StartIo", &IKvox::StartIo, number);
  Do("TapEnable", &IKvox::TapEnable, kCore, kGen, number, true);
}

void BlameWorld::EndStreams() {
  for (int number = 0; number < 3; ++number) {
    Do("TapEnable", &IKvox::TapEnable, kCore, kGen, number, false);
  }
}

void BlameWorld::BurnOnce() {
  IKvox::ParamValue on;
  on.set<IKvox::ParamValue::i>(1);
  Do("SetParameter", &IKvox::SetParameter, Code("bn02"), IKvox::ParameterId::TEST_MODE, 0, on);
}

void BlameWorld::Rewire() {
  Do("Connect", &IKvox::Connect, Code("ps00"), kNone, kNone);
  std::this_thread::sleep_for(kAway);
  Do("Connect", &IKvox::Connect, Code("ps00"), 0, 0);
}

void BlameWorld::PinIoThreads(int cpu) {
  cpu_set_t set;
  CPU_ZERO(&set);
  CPU_SET(static_cast<size_t>(cpu), &set);
  for (const auto& thread : Entries(ProcPath(daemon_->pid()) / "task")) {
    std::string name;
    std::getline(std::ifstream(thread / "comm"), name);
    if (name.starts_with("tapout"))
      sched_setaffinity(std::stoi(thread.filename()), sizeof set, &set);
  }
}

/// On one processor of several, so that the simulator goes on.
bool BlameWorld::Hog() {
  bool allowed = false;
  PinIoThreads(1);
  std::thread([&] {
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(1, &set);
    allowed = sched_setaffinity(0, sizeof set, &set) == 0 && SetThreadRealtimePriority() == 0;
    const uint64_t until_ns = GetTimestampNs() + kHogNs;
    while (allowed && GetTimestampNs() < until_ns) {
    }
  }).join();
  return allowed;
}

flight::FlightView BlameWorld::ReadLog() const {
  std::string error;
  auto view = flight::ReadFlight(home_ / "run" / flight::kFileName, {}, &error);
  if (!view) throw std::runtime_error(error);
  return std::move(*view);
}

}  // namespace kvox::campaign
