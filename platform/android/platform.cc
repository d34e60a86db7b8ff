// On a phone the platform itself does what platform/linux does for a host: binder, log and wake
// locks come from its libraries, and the device manager makes the nodes in /dev.
#include "platform/platform.h"

namespace kvox {

void PreparePlatform() {}

std::vector<HelpRow> DaemonVariables() {
  return {};
}

std::vector<HelpRow> ClientVariables() {
  return {};
}

const std::string& DeviceDirectory() {
  static const auto* const directory = new std::string("/dev");
  return *directory;
}

/// The suspend service drops the locks of a process that ends.
void ReleaseStaleWakeLock(const char*, const char*) {}

/// The service manager answers with a code at most.
const std::string& ServiceError() {
  static const auto* const text = new std::string(
      "the service manager does not offer kvoxd's service to this process; see whether kvoxd runs "
      "(getprop init.svc.kvoxd) and whether the policy lets this process find the service "
      "(logcat -b all -s auditd servicemanager)");
  return *text;
}

bool ServiceDenied() {
  return false;
}

std::vector<std::string> ServiceSockets(const char*) {
  return {};
}

std::optional<ServiceProcess> FindServiceProcess(const std::string&) {
  return std::nullopt;
}

std::vector<std::string> WakeLockFiles() {
  return {};
}

}  // namespace kvox
