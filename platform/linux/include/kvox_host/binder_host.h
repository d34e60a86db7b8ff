// What the host's binder takes beyond the NDK.
#pragma once

#include "platform/platform.h"

namespace kvox_host {

using kvox::ServiceError;

/// Takes back the services, breaks all connections and joins the binder's own threads, those in
/// joinThreadPool return. Not from a thread that serves a call. The next use starts anew.
void StopBinder();

}  // namespace kvox_host
