// What the daemon asks of the platform beside its libraries. Each platform has its own
// implementation; callers are the same everywhere.
#pragma once

#include <string>

namespace kvox {

/// First call of a program that has an event loop of its own, before any other thread runs.
void PreparePlatform();

/// Where the co-processor's devices are, without a slash at the end: KVOX_DEV_DIR, else "/dev".
const std::string& DeviceDirectory();

/// Drops a wake lock of this name that an earlier process left behind, where locks outlive their
/// process; unless a live process serves `service`, whose lock it is then.
void ReleaseStaleWakeLock(const char* name, const char* service);

}  // namespace kvox
