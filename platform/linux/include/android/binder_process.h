// The threads that serve calls: those that startThreadPool starts and those that joined. On a host
// the pool does not grow.
#pragma once

#include <stdbool.h>
#include <stdint.h>

extern "C" {

/// How many threads startThreadPool starts, at least one. False once they run.
bool ABinderProcess_setThreadPoolMaxThreadCount(uint32_t numThreads);
void ABinderProcess_startThreadPool(void);
/// Serves calls on the calling thread; returns only after kvox_host::StopBinder.
void ABinderProcess_joinThreadPool(void);

}  // extern "C"
