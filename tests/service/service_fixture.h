// A KvoxService in a fake environment: a co-processor that replies at once, device nodes in a
// private directory, and recoveries that run when the test says so, without a thread or a pause.
#pragma once

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/log_capture.h"
#include "tests/support/service_surroundings.h"
#include "tests/support/temp_directory.h"

namespace kvox {

/// The real devices; a test can hook into the next opening of a node.
class InterruptedIo : public DeviceIo {
 public:
  int Open(const char* path, Direction direction) override {
    if (on_open && std::string(path).ends_with(interrupted)) std::exchange(on_open, nullptr)();
    return real_.Open(path, direction);
  }
  void Close(int fd) override { real_.Close(fd); }
  Ready Wait(int fd, Direction direction, int wake_fd, std::chrono::nanoseconds timeout) override {
    return real_.Wait(fd, direction, wake_fd, timeout);
  }
  int Watch(int fd, int wake_fd) override { return real_.Watch(fd, wake_fd); }
  Ready WaitWatched(int watch, int timeout_ms) override {
    return failing ? Ready::kFailed : real_.WaitWatched(watch, timeout_ms);
  }
  ssize_t Read(int fd, std::span<std::byte> bytes) override { return real_.Read(fd, bytes); }
  ssize_t Write(int fd, std::span<const std::byte> bytes) override {
    return real_.Write(fd, bytes);
  }
  uint64_t NowNs() override { return real_.NowNs(); }

  std::string interrupted;  // the node's name
  std::function<void()> on_open;
  std::atomic<bool> failing = false;  // tap-outs cannot be waited for

 private:
  DeviceIo& real_ = SystemDeviceIo();
};

class ServiceTest : public ::testing::Test {
 protected:
  /// Nodes "tapoutN" and "injectN"; the injects get a reader, so that they can be opened.
  void MakeNodes(const std::vector<std::string>& names) {
    for (const std::string& name : names) {
      directory_.MakeFifo("xdv-kvox_" + name);
      if (name.starts_with("inject")) {
        readers_.emplace_back(
            open((directory_ / ("xdv-kvox_" + name)).c_str(), O_RDONLY | O_NONBLOCK));
      }
    }
  }
  void RemoveNodes(const std::vector<std::string>& names) {
    for (const std::string& name : names) directory_.Remove("xdv-kvox_" + name);
  }

  void StartService() {
    ManualRecovery startup([](RecoveryClock&) {});
    service_ = MakeService(link_, io_, log_, directory_.path(), startup, recovery_);
    startup_pauses_ = startup.pauses;
    log_.Take();
  }

  void Arrive(const std::string& node) {
    service_->HandleDeviceEvent({DeviceEvent::Kind::kArrived, "xdv-kvox_" + node});
  }
  void Leave(const std::string& node) {
    service_->HandleDeviceEvent({DeviceEvent::Kind::kLeft, "xdv-kvox_" + node});
  }

  /// The co-processor leaves and returns; everything is restored when this returns.
  void Restart(std::vector<std::function<void()>> late_arrivals = {}) {
    Leave("tapout0");
    Arrive("tapout0");
    link_.opcodes.clear();
    link_.sent.clear();
    log_.Take();
    recovery_->late_arrivals = std::move(late_arrivals);
    recovery_->Run();
  }

  /// The rows of both lists of buffers.
  std::string BufferRows() {
    return Call(&KvoxService::ListTapOutBuffers).lines.back() +
           Call(&KvoxService::ListInjectBuffers).lines.back();
  }
  std::string ProcessorRows() { return Call(&KvoxService::ListProcessors).lines.back(); }

  /// Calls a command on a fresh result.
  template <typename... Parameters, typename... Arguments>
  CommandResult Call(KvoxService::Status (KvoxService::*method)(Parameters...),
                     Arguments... arguments) {
    CommandResult result;
    EXPECT_TRUE((service_.get()->*method)(arguments..., &result).isOk());
    return result;
  }

  LogCapture log_;
  TempDirectory directory_;
  FakeCoprocessor link_;
  InterruptedIo io_;
  std::shared_ptr<KvoxService> service_;
  ManualRecovery* recovery_ = nullptr;
  int startup_pauses_ = 0;

 private:
  std::vector<UniqueFd> readers_;
};

/// A four-character code as commands take it.
consteval int32_t Code(const char (&text)[5]) {
  return static_cast<int32_t>(MakeFourCc(text));
}

using Lines = std::vector<std::string>;

inline int StatusOf(const CommandResult& result) {
  return static_cast<int>(result.status);
}

}  // namespace kvox
