// What daemon and client need from the platform besides its libraries. Each platform has its own
// implementation (linux/, android/); callers are the same on both.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "kvox/common/help_text.h"

namespace kvox {

/// Call this first in a program with its own event loop, before any other thread runs.
void PreparePlatform();

/// The environment variables that this platform reads, for the help of the daemon and its clients.
/// Any thread.
std::vector<HelpRow> DaemonVariables();
std::vector<HelpRow> ClientVariables();

/// Where the co-processor's devices are, without a slash at the end. Any thread.
const std::string& DeviceDirectory();

/// Where the flight log is written: exists when this returns. Otherwise sets `error` to the cause
/// and the next step. Any thread.
std::string FlightDirectory(std::string* error);

/// Where clients look for it, in this order. Any thread.
std::vector<std::string> FlightDirectories();

/// A call that waits for a device rather than works says so, on its thread: until it waits no
/// longer, the platform may serve another call in its place. Nested pairs count as one. Any thread.
void CallWaits(bool waits);

/// Releases a wake lock of this name that an earlier process left, where locks outlive their
/// process. For the one process that has registered the service and holds no lock yet.
void ReleaseStaleWakeLock(const char* name);

/// Why this thread's last registration or look-up of a service failed, with the cause, if the
/// platform reports it, and the next step. Undefined after one that succeeded.
const std::string& ServiceError();

/// True when this thread's last look-up failed because this user may not use the service. False
/// where the platform does not report that.
bool ServiceDenied();

// For diagnosis; any thread.

/// The sockets where this process looks for a service, in this order. None if there is a service
/// manager.
std::vector<std::string> ServiceSockets(const char* service);

/// The process that listens at a socket.
struct ServiceProcess {
  int pid = 0;  // 0 for one in another pid namespace
  unsigned user = 0;
};

/// None where no process listens, or this user may not connect. Connects for an instant, without
/// waiting.
std::optional<ServiceProcess> FindServiceProcess(const std::string& socket);

/// The files that take and release a wake lock, in this order. None where the system has another
/// way.
std::vector<std::string> WakeLockFiles();

}  // namespace kvox
