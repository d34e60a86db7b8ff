// The threads that serve calls. This host's pool does not grow: it has the threads that
// startThreadPool starts and those that joined.
#pragma once

#include <stdbool.h>
#include <stdint.h>

extern "C" {

/// How many threads startThreadPool starts, one at the least. False once they are running.
bool ABinderProcess_setThreadPoolMaxThreadCount(uint32_t numThreads);
void ABinderProcess_startThreadPool(void);
/// Serves calls on the calling thread; returns only after kvox_host::StopBinder.
void ABinderProcess_joinThreadPool(void);

}  // extern "C"
