#include "daemon/kvoxd.h"

#include <android/binder_manager.h>
#include <android/binder_process.h>
#include <hardware_legacy/power.h>
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <system_error>
#include <thread>

#include "daemon/command_text.h"
#include "interface/service_name.h"
#include "kvox/common/device_names.h"
#include "kvox/common/fixed_text.h"
#include "kvox/common/kvox_utils.h"
#include "kvox/common/log.h"
#include "platform/platform.h"
#include "service/kvox_service.h"

namespace kvox {
namespace {

constexpr char kWakeLockName[] = "kvox";
constexpr timeval kOpenAgain = {.tv_sec = 0, .tv_usec = 100'000};

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
  Wake WaitForFirstArrival(TimePoint) override { return Wake::kStopping; }
  Wake WaitForArrivals(TimePoint) override { return Wake::kStopping; }
};

const char* TextOf(DeviceEvent::Kind kind) {
  switch (kind) {
    case DeviceEvent::Kind::kArrived:
      return "arrived";
    case DeviceEvent::Kind::kLeft:
      return "left";
    case DeviceEvent::Kind::kAllGone:
      return "events were lost: all devices are scanned anew";
    case DeviceEvent::Kind::kDirectoryGone:
      return "the device directory is gone";
    case DeviceEvent::Kind::kRightsChanged:
      return "has other rights";
    case DeviceEvent::Kind::kOpened:
      return "opened";
  }
  return "";
}

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
  StartFlightLog();
  if (Exists(device_directory_ + "/" + kMarkerDevice) && Exists(control_path_)) control_.Open();
}

Kvoxd::~Kvoxd() {
  puts("Kvoxd stop");
  control_.Close();
  flight_.Stop();
  if (sampler_.joinable()) sampler_.join();
}

void Kvoxd::StartFlightLog() {
  std::string error;
  const std::string directory = FlightDirectory(&error);
  if (error.empty()) error = flight_.MoveToFile(directory, "kvoxd " KVOX_VERSION);
  if (!error.empty()) LogWarning("Running without a flight log: %s", error.c_str());
  flight_.Record({.kind = flight::EventKind::kDaemon, .subject = "kvoxd", .text = "started"});
  try {
    sampler_ = std::thread([this] {
      SetThreadName("kvox-sampler");
      while (flight_.WaitToSample()) flight_.Sample();
    });
  } catch (const std::system_error& failure) {
    LogWarning("The flight log has no scheduling delays: %s", failure.what());
  }
}

void Kvoxd::BinderThread(int) {
  LogInfo("Start %s\n", "BinderThread");
  SetThreadName("kvoxd-binder");
  StartupClock startup;
  std::shared_ptr<KvoxService> service = ndk::SharedRefBase::make<KvoxService>(
      ServiceEnvironment{.link = *this,
                         .io = SystemDeviceIo(),
                         .io_log = io_log_,
                         .flight = flight_,
                         .device_directory = device_directory_,
                         .call_waits = CallWaits},
      startup);
  const char* const name = KvoxDescriptor();
  const binder_exception_t status = AServiceManager_addService(service->asBinder().get(), name);
  if (status != EX_NONE) {
    LogError("Failed to find kvox service %s, status %d", name, status);
    return;
  }
  ReleaseStaleWakeLock(kWakeLockName);  // no other daemon serves, and no command has come yet
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
  devices_.reset();
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
  self->open_control_event_ = event_new(self->event_base_, -1, 0, _open_control_cb, self);
  self->devices_ = std::make_unique<DeviceWatch>(
      self->event_base_, self->device_directory_,
      [self](const DeviceEvent& event) { self->HandleDeviceEvent(event); });
}

void Kvoxd::_signal_handler(evutil_socket_t, short, void* daemon) {
  LogInfo("Caught signal. Exiting\n");
  LogInfo("kvoxd still serves, but sees no devices come or go; SIGTERM, or Ctrl-\\, ends it");
  event_base_loopexit(static_cast<Kvoxd*>(daemon)->event_base_, nullptr);
}

void Kvoxd::HandleDeviceEvent(const DeviceEvent& event) {
  flight_.Record(
      {.kind = flight::EventKind::kDevice, .subject = event.name, .text = TextOf(event.kind)});
  const bool control = event.name == kControlDevice;
  switch (event.kind) {
    case DeviceEvent::Kind::kArrived:
      if (control) OpenArrivedControl();
      break;
    case DeviceEvent::Kind::kRightsChanged:
      if (control) OpenControlLate();
      break;
    case DeviceEvent::Kind::kOpened:
      break;
    case DeviceEvent::Kind::kAllGone:
      LogWarning("Device events were lost; scanning all devices anew");
      [[fallthrough]];
    case DeviceEvent::Kind::kDirectoryGone:
    case DeviceEvent::Kind::kLeft:
      if (!control) break;
      LogInfo("%s offline\n", control_path_.c_str());
      control_closed_ = false;
      control_.Close();
  }
  KvoxService::DispatchDeviceEvent(event);
}

/// A node may get its rights, or its driver, a moment after it has appeared.
void Kvoxd::OpenArrivedControl() {
  LogInfo("%s online\n", control_path_.c_str());
  control_.Open();
  control_closed_ = !control_.IsOpen();
  if (control_closed_) event_add(open_control_event_, &kOpenAgain);
}

void Kvoxd::_open_control_cb(evutil_socket_t, short, void* daemon) {
  static_cast<Kvoxd*>(daemon)->OpenControlLate();
}

/// A command may have opened it since.
void Kvoxd::OpenControlLate() {
  if (!control_closed_) return;
  const bool there = access(control_path_.c_str(), F_OK) == 0;  // Open would wait for it
  if (!control_.IsOpen() && there) control_.Open();
  if (!control_.IsOpen()) return;
  control_closed_ = false;
  KvoxService::DispatchDeviceEvent({DeviceEvent::Kind::kOpened, kControlDevice});
}

int32_t Kvoxd::SendKvoxCommand(uint16_t opcode, CMD_HDR* record, size_t size) {
  const CommandText text(opcode, *record);
  const uint64_t begin_ns = GetTimestampNs();
  const int32_t status = control_.Exchange(opcode, record, size);
  const bool asks = opcode == CMD_KVOX_TAP_LIST_ID || opcode == CMD_TAP_INFO_ID;
  if (status == 0 && asks) return status;  // they come by the dozen, and change nothing
  flight_.Record({.kind = flight::EventKind::kExchange,
                  .subject = text.tap,
                  .text = text.action,
                  .status = status,
                  .duration_ns = GetTimestampNs() - begin_ns});
  return status;
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
