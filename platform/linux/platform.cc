#include "platform/platform.h"

#include <stdlib.h>

namespace kvox {

std::vector<HelpRow> DaemonVariables() {
  return {
      {"KVOX_DEV_DIR", "Directory that stands for /dev (/dev)"},
      {"KVOX_RUNTIME_DIR",
       "Directory of the service's socket ($XDG_RUNTIME_DIR/kvox; of root /run/kvox)"},
      {"KVOX_WAKE_LOCK_DIR", "Directory of wake_lock and wake_unlock (/sys/power)"},
      {"ANDROID_LOG_TAGS",
       "What is logged: TAG:PRIORITY..., of v d i w e f s; '*:w' is warnings and errors (all)"},
  };
}

std::vector<HelpRow> ClientVariables() {
  return {
      {"KVOX_RUNTIME_DIR",
       "Directory of kvoxd's socket (where there is one: $XDG_RUNTIME_DIR/kvox, /run/kvox)"},
  };
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
