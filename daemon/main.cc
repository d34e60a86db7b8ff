// kvoxd: the daemon between the audio co-processor and its clients.

#include <signal.h>

#include <cstdio>
#include <cstring>
#include <thread>

#include "daemon/kvoxd.h"
#include "daemon/usage.h"
#include "kvox/common/log.h"
#include "platform/platform.h"
#include "service/kvox_service.h"

namespace {

constexpr bool kEnableKvoxProcessing = KVOX_ENABLE_PROCESSING;
constexpr bool kEnableKvoxPhonebooth = KVOX_ENABLE_PHONEBOOTH;

/// Makes a write to a closed peer, or beyond the file size limit, an ordinary error, and lets only
/// the event thread handle signals.
void PrepareSignals() {
  signal(SIGPIPE, SIG_IGN);
  signal(SIGXFSZ, SIG_IGN);
  sigset_t handled;
  sigemptyset(&handled);
  sigaddset(&handled, SIGINT);
  sigaddset(&handled, SIGHUP);
  pthread_sigmask(SIG_BLOCK, &handled, nullptr);
}

/// kvoxd takes no arguments but these.
int PrintUsage(const char* argument) {
  const bool asked = strcmp(argument, "--help") == 0 || strcmp(argument, "-h") == 0;
  if (strcmp(argument, "--version") == 0) {
    puts("kvoxd " KVOX_VERSION);
    return 0;
  }
  if (!asked) fprintf(stderr, "kvoxd: unexpected argument '%s'\n", argument);
  fputs(kvox::Usage().c_str(), asked ? stdout : stderr);
  return asked ? 0 : 2;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc > 1) return PrintUsage(argv[1]);
  PrepareSignals();
  kvox::PreparePlatform();
  kvox::Kvoxd& daemon = kvox::Kvoxd::Instance();
  kvox::LogInfo("Start %s\n", "Main");
  kvox::LogInfo("enable_kvox_processing: %u", kEnableKvoxProcessing ? 1u : 0u);
  kvox::LogInfo("enable_kvox_phonebooth: %u", kEnableKvoxPhonebooth ? 1u : 0u);
  std::thread binder_thread(&kvox::Kvoxd::BinderThread, &daemon, 0);
  kvox::KvoxService::WaitForServiceReady();
  std::thread event_thread(&kvox::Kvoxd::EventThread, &daemon, 0);
  binder_thread.join();
  event_thread.join();
  kvox::LogInfo("Stop %s\n", "Main");
  return 0;
}
