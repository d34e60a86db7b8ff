#include "daemon/device_watch.h"

#include <sys/inotify.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <filesystem>
#include <span>
#include <system_error>
#include <utility>

#include "daemon/device_events.h"
#include "kvox/common/device_names.h"
#include "kvox/common/log.h"

namespace kvox {
namespace {

constexpr timeval kLookAgain = {.tv_sec = 1, .tv_usec = 0};

}  // namespace

DeviceWatch::DeviceWatch(event_base* base, std::string directory, Handler handler)
    : directory_(std::move(directory)),
      handler_(std::move(handler)),
      inotify_(inotify_init1(IN_NONBLOCK | IN_CLOEXEC)),
      readable_(event_new(base, inotify_.get(), EV_READ | EV_PERSIST, OnReadable, this)),
      timer_(event_new(base, -1, EV_PERSIST, OnTimer, this)) {
  event_add(readable_, nullptr);
  if (AddWatch()) return;
  LogError("Cannot watch the device directory %s: %s. It is looked for once a second",
           directory_.c_str(), std::strerror(errno));
  event_add(timer_, &kLookAgain);
}

DeviceWatch::~DeviceWatch() {
  event_free(timer_);
  event_free(readable_);
}

bool DeviceWatch::AddWatch() {
  watch_ = inotify_add_watch(
      inotify_.get(), directory_.c_str(),
      IN_CREATE | IN_DELETE | IN_ATTRIB | IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR);
  return watch_ >= 0;
}

void DeviceWatch::OnReadable(evutil_socket_t, short, void* self) {
  static_cast<DeviceWatch*>(self)->ReadEvents();
}

void DeviceWatch::ReadEvents() {
  alignas(inotify_event) std::array<std::byte, 16384> bytes = {};
  const ssize_t count = read(inotify_.get(), bytes.data(), bytes.size());
  if (count <= 0) {
    LogError("Failed to read from inotify %d", static_cast<int>(count));
    return;
  }
  for (const DeviceEvent& event :
       ReadDeviceEvents(std::span(bytes).first(static_cast<size_t>(count)), watch_)) {
    handler_(event);
    if (event.kind == DeviceEvent::Kind::kDirectoryGone) LoseDirectory();
  }
}

/// A directory that was moved away is still watched by its old name.
void DeviceWatch::LoseDirectory() {
  if (watch_ < 0) return;
  LogError("The device directory %s is gone. It is looked for once a second", directory_.c_str());
  inotify_rm_watch(inotify_.get(), std::exchange(watch_, -1));
  event_add(timer_, &kLookAgain);
}

void DeviceWatch::OnTimer(evutil_socket_t, short, void* self) {
  auto* const watch = static_cast<DeviceWatch*>(self);
  if (!watch->AddWatch()) return;
  event_del(watch->timer_);
  LogInfo("The device directory %s is there", watch->directory_.c_str());
  watch->ReportPresent();
}

/// Some may have come before the watch.
void DeviceWatch::ReportPresent() {
  std::error_code error;
  std::filesystem::directory_iterator entry(directory_, error);
  for (; !error && entry != end(entry); entry.increment(error)) {
    const std::string name = entry->path().filename();
    if (name.starts_with(kDevicePrefix)) handler_({DeviceEvent::Kind::kArrived, name});
  }
}

}  // namespace kvox
