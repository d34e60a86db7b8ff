// On a phone, binder, log and wake locks come from the platform's own libraries, and the device
// manager creates the nodes in /dev.
#include "platform/platform.h"

#include <linux/magic.h>
#include <sys/vfs.h>

namespace kvox {
namespace {

constexpr char kFlightDirectory[] = "/data/vendor/kvox/flight";

}  // namespace

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

/// Made by the daemon's init script. On a disk the packet path would wait for its pages.
std::string FlightDirectory(std::string* error) {
  struct statfs status;
  if (statfs(kFlightDirectory, &status) != 0 || status.f_type != TMPFS_MAGIC) {
    *error = std::string(kFlightDirectory) +
             " is no memory file system; see in the kernel's log why init could not mount it";
  }
  return kFlightDirectory;
}

std::vector<std::string> FlightDirectories() {
  return {kFlightDirectory};
}

/// The platform's pool has no places to lend.
void CallWaits(bool) {}

/// The suspend service releases the locks of a process that ends.
void ReleaseStaleWakeLock(const char*) {}

/// The service manager gives no more than a code.
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
