#include "platform/platform.h"

#include <event2/thread.h>
#include <malloc.h>
#include <stdlib.h>

namespace kvox {
namespace {

/// What a buffer works with is as large as that or larger. Memory of this size goes back to the
/// system when it is freed. Left to itself the allocator raises the limit, and then every thread
/// that has ever set up buffers keeps an arena that has grown by them.
constexpr int kOwnMappingSize = 64 * 1024;

}  // namespace

void PreparePlatform() {
  mallopt(M_MMAP_THRESHOLD, kOwnMappingSize);
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
