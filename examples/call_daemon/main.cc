// Prints the tap-out buffers of the running daemon.

#include <aidl/kvox/IKvox.h>
#include <android/binder_manager.h>
#include <kvox_host/binder_host.h>

#include <cstdio>
#include <string>

using aidl::kvox::IKvox;

int main() {
  const std::string name = std::string(IKvox::descriptor) + "/default";
  const auto kvox = IKvox::fromBinder(ndk::SpAIBinder(AServiceManager_checkService(name.c_str())));
  if (kvox == nullptr) {
    fprintf(stderr, "call_daemon: %s\n", kvox_host::ServiceError().c_str());
    return 1;
  }
  IKvox::CommandResult result;
  const ndk::ScopedAStatus status = kvox->ListTapOutBuffers(&result);
  for (const std::string& line : result.lines) puts(line.c_str());
  if (!status.isOk()) fprintf(stderr, "call_daemon: %s\n", status.getDescription().c_str());
  return status.isOk() ? 0 : 1;
}
