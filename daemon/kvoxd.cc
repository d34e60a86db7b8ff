#include "daemon/kvoxd.h"

#include <android/binder_manager.h>
#include <android/binder_process.h>
#include <hardware_legacy/power.h>
#include <signal.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <thread>

#include "daemon/device_events.h"
#include "interface/service_name.h"
#include "kvox/common/device_names.h"
#include "kvox/common/kvox_utils.h"
#include "kvox/common/log.h"
#include "platform/platform.h"
#include "service/kvox_service.h"

namespace kvox {
namespace {

constexpr char kWakeLockName[] = "kvox";

/// The first scan runs before there are calls or device events: its pauses are plain sleeps.
class StartupClock : public RecoveryClock {
 public:
  TimePoint Now() const override { return std::chrono::steady_clock::now(); }
  bool Pause(std::chrono::milliseconds time) override {
    std::this_thread::sleep_for(time);
    return true;
  }
  bool stopping() const override { return false; }
  void ScanBegins() override {}
  Wake WaitForArrivals(TimePoint) override { return Wake::kStopping; }
};

bool Exists(const std::string& path) {
  return access(path.c_str(), F_OK) == 0;
}

}  // namespace

Kvoxd& Kvoxd::Instance() {
  static Kvoxd daemon;
  return daemon;
}

Kvoxd::Kvoxd()
    : device_directory_(DeviceDirectory()),
      control_path_(device_directory_ + "/" + kControlDevice),
      control_(control_path_),
      io_log_(SystemLog()) {
  puts("Kvoxd start");
  fflush(stdout);
  if (Exists(device_directory_ + "/" + kMarkerDevice) && Exists(control_path_)) control_.Open();
}

Kvoxd::~Kvoxd() {
  puts("Kvoxd stop");
  control_.Close();
}

void Kvoxd::BinderThread(int) {
  LogInfo("Start %s\n", "BinderThread");
  SetThreadName("kvoxd-binder");
  StartupClock startup;
  std::shared_ptr<KvoxService> service = ndk::SharedRefBase::make<KvoxService>(
      ServiceEnvironment{.link = *this,
                         .io = SystemDeviceIo(),
                         .io_log = io_log_,
                         .device_directory = device_directory_},
      startup);
  const char* const name = KvoxDescriptor();
  const binder_exception_t status = AServiceManager_addService(service->asBinder().get(), name);
  if (status != EX_NONE) {
    LogError("Failed to find kvox service %s, status %d", name, status);
    return;
  }
  ABinderProcess_setThreadPoolMaxThreadCount(1);
  ABinderProcess_startThreadPool();
  ABinderProcess_joinThreadPool();
  LogInfo("Stop %s\n", "BinderThread");
}

void Kvoxd::EventThread(int) {
  LogInfo("Start %s\n", "EventThread");
  SetThreadName("kvoxd-events");
  event_base_ = event_base_new();
  startup_event_ = event_new(event_base_, -1, 0, _setup_events, this);
  const timeval at_once{};
  event_add(startup_event_, &at_once);
  event_base_dispatch(event_base_);
  event_del(startup_event_);
  LogInfo("Stop %s\n", "EventThread");
}

void Kvoxd::_setup_events(evutil_socket_t, short, void* daemon) {
  auto* const self = static_cast<Kvoxd*>(daemon);
  sigset_t handled;
  sigemptyset(&handled);
  for (const int signal_number : {SIGINT, SIGHUP}) {
    sigaddset(&handled, signal_number);
    event_add(
        event_new(self->event_base_, signal_number, EV_SIGNAL | EV_PERSIST, _signal_handler, self),
        nullptr);
  }
  pthread_sigmask(SIG_UNBLOCK, &handled, nullptr);  // on this thread only
  self->WatchDevices();
}

void Kvoxd::WatchDevices() {
  inotify_fd_ = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
  const int watch =
      inotify_add_watch(inotify_fd_, device_directory_.c_str(), IN_CREATE | IN_DELETE);
  if (watch < 0) {
    LogError(
        "Cannot watch the device directory %s: %s. Devices that come or go are not noticed; "
        "create the directory and restart kvoxd",
        device_directory_.c_str(), std::strerror(errno));
  }
  inotify_event_ =
      event_new(event_base_, inotify_fd_, EV_READ | EV_PERSIST, _inotify_read_event_cb, this);
  event_add(inotify_event_, nullptr);
}

void Kvoxd::_signal_handler(evutil_socket_t, short, void* daemon) {
  LogInfo("Caught signal. Exiting\n");
  event_base_loopexit(static_cast<Kvoxd*>(daemon)->event_base_, nullptr);
}

void Kvoxd::_inotify_read_event_cb(evutil_socket_t fd, short, void* daemon) {
  auto* const self = static_cast<Kvoxd*>(daemon);
  alignas(inotify_event) std::array<std::byte, 16384> bytes = {};
  const ssize_t count = read(fd, bytes.data(), bytes.size());
  if (count <= 0) {
    LogError("Failed to read from inotify %d", static_cast<int>(count));
    return;
  }
  for (const DeviceEvent& event :
       ReadDeviceEvents(std::span(bytes).first(static_cast<size_t>(count)))) {
    self->HandleDeviceEvent(event);
  }
}

void Kvoxd::HandleDeviceEvent(const DeviceEvent& event) {
  if (event.kind == DeviceEvent::Kind::kAllGone) {
    LogWarning("Device events were lost; scanning all devices anew");
  }
  if (event.name == kControlDevice && event.kind == DeviceEvent::Kind::kArrived) {
    LogInfo("%s online\n", control_path_.c_str());
    control_.Open();
  } else if (event.name == kControlDevice) {
    LogInfo("%s offline\n", control_path_.c_str());
    control_.Close();
  }
  KvoxService::DispatchDeviceEvent(event);
}

int32_t Kvoxd::SendKvoxCommand(uint16_t opcode, CMD_HDR* record, size_t size) {
  return control_.Exchange(opcode, record, size);
}

void Kvoxd::UpdateWakeLock(bool needed) {
  if (needed == wake_lock_held_) return;
  if (needed) {
    const int status = acquire_wake_lock(PARTIAL_WAKE_LOCK, kWakeLockName);
    if (status != 0) LogError("Acquire wakelocked failed, st = %d", status);
    wake_lock_held_ = status == 0;
  } else {
    const int status = release_wake_lock(kWakeLockName);
    if (status != 0) LogError("Release wakelocked failed, st = %d", status);
    wake_lock_held_ = status != 0;
  }
}

}  // namespace kvox
