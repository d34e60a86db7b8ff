// A KvoxService on fake surroundings: a co-processor that answers at once, device nodes in a
// private directory, and recoveries that run when the test says so, without a thread or a pause.
#pragma once

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "daemon/device_events.h"
#include "service/kvox_service.h"
#include "tests/support/log_capture.h"
#include "tests/support/temp_directory.h"

namespace kvox {

/// Keeps what it was sent; answers from a list of tap points, or with a failure.
class FakeCoprocessor : public CoprocessorLink {
 public:
  int32_t SendKvoxCommand(uint16_t opcode, CMD_HDR* record, size_t size) override {
    const auto* const bytes = reinterpret_cast<const uint8_t*>(record);
    sent.emplace_back(bytes + sizeof(CMD_HDR), bytes + size);
    opcodes.push_back(opcode);
    if (on_send) std::exchange(on_send, nullptr)();
    if (const auto failure = failures.find(opcode); failure != failures.end())
      return failure->second;
    if (opcode == CMD_KVOX_TAP_LIST_ID) List(*reinterpret_cast<TapListRecord*>(record));
    if (opcode == CMD_TAP_INFO_ID) Tell(*reinterpret_cast<TapInfoRecord*>(record));
    return 0;
  }
  void UpdateWakeLock(bool needed) override { wake_lock = needed; }

  std::vector<TapInfoState> taps;
  std::map<uint16_t, int32_t> failures;
  std::vector<uint16_t> opcodes;
  std::vector<std::vector<uint8_t>> sent;  // payloads
  std::function<void()> on_send;           // called in the next exchange
  bool wake_lock = false;
  bool endless_list = false;

 private:
  void List(TapListRecord& record) {
    size_t skip = size_t{record.page} * kTapListPageEntries;
    size_t entry = 0;
    for (const TapInfoState& tap : taps) {
      if (tap.core != record.core || entry == kTapListPageEntries) continue;
      if (skip > 0 && !endless_list) {
        --skip;
        continue;
      }
      record.entries[entry].tap = tap.tap;
      record.entries[entry++].index = tap.index;
    }
  }
  void Tell(TapInfoRecord& record) {
    for (const TapInfoState& tap : taps) {
      if (tap.tap == record.state.tap && tap.index == record.state.index) record.state = tap;
    }
  }
};

/// The real devices; the next opening of a node can be interrupted for something else.
class InterruptedIo : public DeviceIo {
 public:
  int Open(const char* path, Direction direction) override {
    if (on_open && std::string(path).ends_with(interrupted)) std::exchange(on_open, nullptr)();
    return real_.Open(path, direction);
  }
  void Close(int fd) override { real_.Close(fd); }
  Ready Wait(int fd, Direction direction, int wake_fd, int timeout_ms) override {
    return real_.Wait(fd, direction, wake_fd, timeout_ms);
  }
  int Watch(int fd, int wake_fd) override { return real_.Watch(fd, wake_fd); }
  Ready WaitWatched(int watch, int timeout_ms) override {
    return real_.WaitWatched(watch, timeout_ms);
  }
  ssize_t Read(int fd, std::span<std::byte> bytes) override { return real_.Read(fd, bytes); }
  ssize_t Write(int fd, std::span<const std::byte> bytes) override {
    return real_.Write(fd, bytes);
  }
  uint64_t NowNs() override { return real_.NowNs(); }

  std::string interrupted;  // the node's name
  std::function<void()> on_open;

 private:
  DeviceIo& real_ = SystemDeviceIo();
};

/// A recovery that runs when told to, through scans and late arrivals.
class ManualRecovery : public Recovery, public RecoveryPacer {
 public:
  explicit ManualRecovery(Body body) : body_(std::move(body)) {}
  void NoteArrival() override {}
  void RequestStop() override {}

  bool Pause(std::chrono::milliseconds) override { return ++pauses, true; }
  bool stopping() const override { return false; }
  void ScanBegins() override {}
  RecoveryClock::time_point Now() const override { return now; }
  /// First the arrivals, then the time that the recovery waits for, if any.
  Wake WaitForArrivals(RecoveryClock::time_point until) override {
    if (late_arrivals.empty()) {
      if (until == RecoveryClock::time_point::max()) return Wake::kStopping;
      now = until;
      return Wake::kTime;
    }
    std::exchange(late_arrivals.front(), nullptr)();
    late_arrivals.erase(late_arrivals.begin());
    return Wake::kArrivals;
  }

  void Run() { body_(*this); }

  int pauses = 0;
  RecoveryClock::time_point now;
  std::vector<std::function<void()>> late_arrivals;

 private:
  const Body body_;
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
    ManualRecovery pacer([](RecoveryPacer&) {});
    service_ = ndk::SharedRefBase::make<KvoxService>(
        ServiceEnvironment{.link = link_,
                           .io = io_,
                           .io_log = log_,
                           .device_directory = directory_.path(),
                           .start_recovery =
                               [this](Recovery::Body body) {
                                 auto recovery = std::make_unique<ManualRecovery>(std::move(body));
                                 recovery_ = recovery.get();
                                 return recovery;
                               }},
        pacer);
    startup_pauses_ = pacer.pauses;
    log_.Take();
  }

  void Event(uint32_t mask, const std::string& name) {
    const InotifyEventBytes event(mask, name);
    service_->HandleInotifyEvent(&event.event());
  }

  /// The co-processor goes and comes; everything is restored when this returns.
  void Restart(std::vector<std::function<void()>> late_arrivals = {}) {
    Event(IN_DELETE, "xdv-kvox_tapout0");
    Event(IN_CREATE, "xdv-kvox_tapout0");
    link_.opcodes.clear();
    link_.sent.clear();
    log_.Take();
    recovery_->late_arrivals = std::move(late_arrivals);
    recovery_->Run();
  }

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
