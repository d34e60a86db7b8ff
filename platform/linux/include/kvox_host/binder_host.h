// Functions of the host's binder beyond the NDK.
#pragma once

#include <string>

namespace kvox_host {

/// Why this thread's last registration or look-up of a service failed, with the next step.
/// Undefined after one that succeeded.
const std::string& ServiceError();

/// Withdraws the services, closes all connections and joins the binder's own threads; threads in
/// joinThreadPool return. Not from a thread that serves a call. The next use restarts the binder.
void StopBinder();

}  // namespace kvox_host
