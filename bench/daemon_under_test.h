// The real kvoxd as a child, with FIFOs for devices, and a client's access to it.
#pragma once

#include <aidl/kvox/IKvox.h>

#include <filesystem>
#include <memory>
#include <optional>
#include <string>

#include "bench/child.h"
#include "kvox/common/four_cc.h"

namespace kvox::bench {

/// A directory of the benchmark's own, in TMPDIR or /tmp; removed with the object.
class PrivateDirectory {
 public:
  PrivateDirectory();
  ~PrivateDirectory();
  PrivateDirectory(const PrivateDirectory&) = delete;
  PrivateDirectory& operator=(const PrivateDirectory&) = delete;

  const std::filesystem::path& path() const { return path_; }
  /// The path of a directory in it, which is made if necessary.
  std::filesystem::path Folder(const std::string& name) const;

 private:
  std::filesystem::path path_;
};

/// The prefix of the names of the daemon's I/O threads.
inline constexpr char kDaemonIoThread[] = "tapout";

class DaemonUnderTest {
 public:
  using IKvox = aidl::kvox::IKvox;

  /// Starts the daemon on the devices that are in `home`/dev and waits until it serves. Points this
  /// process's environment to it. Throws std::runtime_error.
  explicit DaemonUnderTest(const PrivateDirectory& home, std::optional<int> core = std::nullopt);
  /// Kills the daemon and ends this process's binder threads, so that those of the next one begin
  /// on the cores of their time.
  ~DaemonUnderTest();
  DaemonUnderTest(const DaemonUnderTest&) = delete;
  DaemonUnderTest& operator=(const DaemonUnderTest&) = delete;

  /// Throws std::runtime_error when the daemon refuses, as StartStream does.
  void MakeProcessor(FourCc processor, FourCc type);

  /// Ties tap-out buffer `stream` through a passthrough processor to the inject buffer of the same
  /// number, and starts it.
  void StartStream(unsigned stream);

  IKvox& service() { return *service_; }
  std::shared_ptr<IKvox> shared_service() const { return service_; }
  Child& child() { return child_; }
  pid_t pid() const { return child_.pid(); }

 private:
  void Call(const char* command, auto method, auto... arguments);

  Child child_;
  std::shared_ptr<IKvox> service_;
};

}  // namespace kvox::bench
