#include "service/kvox_service.h"

#include <chrono>
#include <thread>
#include <utility>

#include "kvox/common/log.h"

namespace kvox {
namespace {

constexpr int kReadyChecks = 5;
constexpr auto kReadyPause = std::chrono::milliseconds(100);

/// The one service of the process. Whoever hands it an event holds the lock meanwhile, so the
/// service cannot go away under it.
Mutex instance_mutex;
KvoxService* instance GUARDED_BY(instance_mutex) = nullptr;

}  // namespace

KvoxService::KvoxService(const ServiceEnvironment& environment, RecoveryPacer& pacer)
    : environment_(environment),
      buffer_environment_{.io = environment.io,
                          .io_log = environment.io_log,
                          .taps = *this,
                          .capture_threads = capture_threads_} {
  {
    MutexLock lock(instance_mutex);
    instance = this;
  }
  initKvoWithRetry(pacer);
}

KvoxService::~KvoxService() {
  {
    MutexLock lock(instance_mutex);
    if (instance == this) instance = nullptr;
  }
  std::unique_ptr<Recovery> recovery;
  {
    MutexLock lock(recovery_mutex_);
    recovery = std::move(recovery_);
  }
  recovery.reset();
  BufferTables gone;
  ProcessorMap processors;
  {
    MutexLock lock(mutex_);
    std::swap(gone, buffers_);
    processors.swap(processors_);
  }
  gone.Drop();
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

void KvoxService::DispatchInotifyEvent(const inotify_event* event) {
  MutexLock lock(instance_mutex);
  if (instance != nullptr) instance->HandleInotifyEvent(event);
}

KvoxService::Status KvoxService::Ping() {
  return Status::ok();
}

std::shared_ptr<KvoxProcessor> KvoxService::GetKvoxProcessor(FourCc id) {
  const auto found = processors_.find(id);
  return found == processors_.end() ? nullptr : found->second;
}

std::shared_ptr<KvoxProcessor> KvoxService::FindProcessor(FourCc id) {
  MutexLock lock(mutex_);
  return GetKvoxProcessor(id);
}

std::vector<std::shared_ptr<KvoxProcessor>> KvoxService::Processors() {
  MutexLock lock(mutex_);
  std::vector<std::shared_ptr<KvoxProcessor>> processors;
  for (const auto& [id, processor] : processors_) processors.push_back(processor);
  return processors;
}

/// Tap-out buffers go before inject buffers, so that no packet is on its way when those close.
void KvoxService::BufferTables::Drop() {
  for (BufferMap* buffers : {&tapouts, &injects}) {
    for (auto& [number, buffer] : *buffers) buffer->Drop();
    buffers->clear();
  }
}

}  // namespace kvox
