#include "platform/platform.h"

#include <event2/thread.h>
#include <malloc.h>
#include <stdlib.h>

#include "platform/linux/limits.h"

namespace kvox {

void PreparePlatform() {
  mallopt(M_MMAP_THRESHOLD, binder::kMmapBytes);
  // The binder's event loop needs it; an event loop of the program's own must not be made before.
  evthread_use_pthreads();
}

const char* PlatformUsage() {
  return "Devices are found in KVOX_DEV_DIR (default /dev), the service's socket is put into\n"
         "KVOX_RUNTIME_DIR.\n";
}

/// KVOX_DEV_DIR, else "/dev".
const std::string& DeviceDirectory() {
  static const auto* const directory = [] {
    const char* value = getenv("KVOX_DEV_DIR");
    auto* path = new std::string(value == nullptr || *value == '\0' ? "/dev" : value);
    while (path->size() > 1 && path->back() == '/') path->pop_back();
    return path;
  }();
  return *directory;
}

}  // namespace kvox
