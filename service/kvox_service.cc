#include "service/kvox_service.h"

#include <chrono>
#include <thread>

#include "kvox/common/log.h"

namespace kvox {
namespace {

constexpr int kReadyChecks = 5;
constexpr auto kReadyPause = std::chrono::milliseconds(100);

/// The process's only service. A thread that passes it an event holds the lock, so that the service
/// cannot go away.
Mutex instance_mutex;
KvoxService* instance GUARDED_BY(instance_mutex) = nullptr;

}  // namespace

KvoxService::KvoxService(const ServiceEnvironment& environment, RecoveryClock& startup)
    : flight_(environment.flight),
      call_waits_(environment.call_waits),
      taps_(environment.link, inventory_, saved_, wiring_),
      io_(environment.link, inventory_, saved_, wiring_),
      recovery_({.device_directory = environment.device_directory,
                 .scan = environment.scan,
                 .start = environment.start_recovery,
                 .buffers = {.io = environment.io,
                             .io_log = environment.io_log,
                             .wiring = wiring_,
                             .capture_threads = capture_threads_,
                             .flight = flight_},
                 .inventory = inventory_,
                 .saved = saved_,
                 .wiring = wiring_,
                 .taps = taps_,
                 .io = io_}) {
  {
    MutexLock lock(instance_mutex);
    instance = this;
  }
  recovery_.ScanAtStart(startup);
}

KvoxService::~KvoxService() {
  MutexLock lock(instance_mutex);
  if (instance == this) instance = nullptr;
}

int KvoxService::WaitForServiceReady() {
  for (int check = 0; check < kReadyChecks; ++check) {
    if (check > 0) std::this_thread::sleep_for(kReadyPause);
    MutexLock lock(instance_mutex);
    if (instance != nullptr) return -1;
  }
  LogError("KvoxService init failed");
  return -1;
}

void KvoxService::DispatchDeviceEvent(const DeviceEvent& event) {
  MutexLock lock(instance_mutex);
  if (instance != nullptr) instance->HandleDeviceEvent(event);
}

void KvoxService::EndUseCaseOf(std::shared_ptr<const KvoxProcessor> relay) {
  flight_.Record({.kind = flight::EventKind::kClient,
                  .subject = relay->id_text(),
                  .text = flight::kClientDied});
  use_cases_.EndUseCaseOf(std::move(relay));
}

KvoxService::Status KvoxService::Ping() {
  return Status::ok();
}

}  // namespace kvox
