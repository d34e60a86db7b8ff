// What the host's binder takes beyond the NDK.
#pragma once

namespace kvox_host {

/// Takes back the services, breaks all connections and joins the binder's own threads, those in
/// joinThreadPool return. Not from a thread that serves a call. The next use starts anew.
void StopBinder();

}  // namespace kvox_host
