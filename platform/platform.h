// What daemon and client ask of the platform beside its libraries. Each platform has its own
// implementation (linux/, android/); callers are the same everywhere.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "kvox/common/help_text.h"

namespace kvox {

/// First call of a program that has an event loop of its own, before any other thread runs.
void PreparePlatform();

/// The variables of the environment that this platform reads, for the help of the daemon and of its
/// clients. Any thread.
std::vector<HelpRow> DaemonVariables();
std::vector<HelpRow> ClientVariables();

/// Where the co-processor's devices are, without a slash at the end. Any thread.
const std::string& DeviceDirectory();

/// Drops a wake lock of this name that an earlier process left behind, where locks outlive their
/// process; unless a live process serves `service`, whose lock it is then.
void ReleaseStaleWakeLock(const char* name, const char* service);

/// Why this thread's last registration or look-up of a service failed, in words that name the
/// cause, as far as the platform tells it, and the next step. Meaningless after one that succeeded.
const std::string& ServiceError();

/// True when this thread's last look-up failed because this user may not use the service, as far as
/// the platform tells.
bool ServiceDenied();

// For those who look for what is wrong; any thread.

/// The sockets at which this process looks for a service, in this order. None where a service
/// manager knows the services.
std::vector<std::string> ServiceSockets(const char* service);

/// Who listens at a socket.
struct ServiceProcess {
  int pid = 0;  // 0 for one in another pid namespace
  unsigned user = 0;
};

/// None where nobody listens, or this user may not connect. Connects for an instant, and waits for
/// nothing.
std::optional<ServiceProcess> FindServiceProcess(const std::string& socket);

/// The files that take a wake lock and drop it, in this order. None where the system has another
/// way.
std::vector<std::string> WakeLockFiles();

}  // namespace kvox
