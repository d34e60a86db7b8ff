// What the host's binder takes beyond the NDK.
#pragma once

#include <string>

namespace kvox_host {

/// Why this thread's last registration or look-up of a service failed, in words that name the
/// cause and the next step. Meaningless after one that succeeded.
const std::string& ServiceError();

/// Takes back the services, breaks all connections and joins the binder's own threads, those in
/// joinThreadPool return. Not from a thread that serves a call. The next use starts anew.
void StopBinder();

}  // namespace kvox_host
