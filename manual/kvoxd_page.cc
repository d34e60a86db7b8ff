#include "daemon/usage.h"
#include "interface/service_name.h"
#include "manual/pages.h"
#include "platform/linux/runtime_directory.h"
#include "platform/platform.h"

namespace kvox::manual {

std::string KvoxdPage(const Edition& edition) {
  Page page("kvoxd", 8, "daemon between an audio co-processor and its clients", edition);

  page.Section("Synopsis");
  page.Synopsis({"kvoxd"});

  page.Section("Description");
  page.Paragraph(UsageSummary());
  page.Paragraph(
      "It configures the co-processor's tap points, reads audio from tap-out devices, runs "
      "processors on it, sends audio back through inject devices, and offers all of that as one "
      "service. When the co-processor goes and returns, what clients had set up is set up again.");
  page.Paragraph(
      "It stays in the foreground and logs to standard error. It takes no words and reads no "
      "configuration: clients such as kvoxctl(1) tell it what to do. One daemon can use a "
      "directory of sockets.");

  page.Section("Options");
  page.Terms(UsageOptions());

  page.Section("Environment");
  page.Terms(DaemonVariables());

  page.Section("Signals");
  page.Terms(UsageSignals());

  page.Section("Exit status");
  page.Terms(UsageExits());
  page.Paragraph(
      "A daemon that serves is ended by a signal. One whose service could not be registered goes "
      "on and serves nobody: the log has the reason.");

  page.Section("Files");
  page.Terms({
      {"/dev/xdv-kvox_control", "Control device: commands to the co-processor and its replies"},
      {"/dev/xdv-kvox_tapoutN", "Tap-out devices: audio from the co-processor"},
      {"/dev/xdv-kvox_injectN", "Inject devices: audio to the co-processor"},
      {binder::SocketPath("/run/kvox", KvoxDescriptor()),
       "Socket of the service. Who may use it and its directory may do all that clients can do."},
      {binder::LockPath("/run/kvox", KvoxDescriptor()), "Held by the daemon that has the socket"},
      {"/sys/power/wake_lock", "Keeps the machine awake while audio flows, where there is one"},
  });

  page.Section("Examples");
  page.Paragraph("A daemon without root beside a simulated phone, with warnings and errors only:");
  page.Example({
      "export KVOX_DEV_DIR=$(mktemp -d) KVOX_RUNTIME_DIR=$(mktemp -d)",
      "kvosim &",
      "ANDROID_LOG_TAGS='*:w' kvoxd 2>kvoxd.log &",
      "kvoxctl wait daemon --timeout 10",
  });

  page.SeeAlso({"kvoxctl(1)", "kvosim(1)"});
  return page.text();
}

}  // namespace kvox::manual
