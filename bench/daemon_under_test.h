// The real kvoxd as a child, with FIFOs for devices, and a client's access to it.
#pragma once

#include <aidl/kvox/IKvox.h>

#include <memory>

#include "kvox/common/four_cc.h"
#include "tests/support/process.h"
#include "tests/support/temp_directory.h"

namespace kvox::bench {

using aidl::kvox::IKvox;

/// How the names of the daemon's I/O threads begin.
inline constexpr char kDaemonIoThread[] = "tapout";

/// All functions throw std::runtime_error when the daemon does not serve or refuses a command.
class DaemonUnderTest {
 public:
  /// Starts the daemon and waits until it serves. `home` has its devices, and is the last one that
  /// was made: the environment names it.
  explicit DaemonUnderTest(const HostDirectories& home);
  /// Also ends this process's binder threads, so that the next daemon's start on the cores bound
  /// then.
  ~DaemonUnderTest();
  DaemonUnderTest(const DaemonUnderTest&) = delete;
  DaemonUnderTest& operator=(const DaemonUnderTest&) = delete;

  void MakeProcessor(FourCc processor, FourCc type);

  /// Connects tap-out buffer `stream` through a passthrough processor to the inject buffer of the
  /// same number, and starts it.
  void StartStream(unsigned stream);

  IKvox& service() { return *service_; }
  pid_t pid() const { return process_.pid(); }

 private:
  void Call(const char* command, auto method, auto... arguments);

  Process process_;
  std::shared_ptr<IKvox> service_;
};

}  // namespace kvox::bench
