// A service and clients of it within one process: both ends of real sockets.
#pragma once

#include <android/binder_manager.h>
#include <android/binder_process.h>
#include <gtest/gtest.h>
#include <kvox_host/binder_host.h>
#include <stdlib.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "kvox/common/mutex.h"
#include "platform/linux/runtime_directory.h"
#include "platform/linux/service_connector.h"
#include "platform/platform.h"
#include "tests/platform/echo.h"
#include "tests/support/process.h"
#include "tests/support/temp_directory.h"

namespace kvox::binder {

using aidl::kvoxtest::IEcho;
using ndk::ScopedAStatus;

/// A text that several threads append to.
class SharedText {
 public:
  void Add(const std::string& part) {
    MutexLock lock(mutex_);
    text_ += part;
  }
  std::string text() {
    MutexLock lock(mutex_);
    return text_;
  }

 private:
  Mutex mutex_;
  std::string text_ GUARDED_BY(mutex_);
};

/// Blocks threads until it is opened.
class Gate {
 public:
  explicit Gate(bool open) : open_(open) {}
  void Open() {
    open_ = true;
    open_.notify_all();
  }
  void Close() { open_ = false; }
  void Pass() {
    ++waiting_;
    open_.wait(false);
    --waiting_;
  }
  int waiting() const { return waiting_; }

 private:
  std::atomic<bool> open_;
  std::atomic<int> waiting_ = 0;
};

class EchoService : public aidl::kvoxtest::BnEcho {
 public:
  ~EchoService() override { ++destroyed; }

  /// With asks_held, calls Echo of the held object first, with one byte less.
  ScopedAStatus Echo(const std::vector<uint8_t>& data, std::vector<uint8_t>* answer) override {
    gate.Pass();
    *answer = data;
    caller_pid = AIBinder_getCallingPid();
    caller_uid = AIBinder_getCallingUid();
    if (!asks_held || data.empty()) return ScopedAStatus::ok();
    answer->pop_back();
    auto status = held()->Echo(std::vector<uint8_t>(*answer), answer);
    answer->push_back(data.back());
    return status;
  }
  ScopedAStatus Swap(const std::shared_ptr<IEcho>& object,
                     std::shared_ptr<IEcho>* before) override {
    MutexLock lock(mutex_);
    *before = std::exchange(held_, object);
    return ScopedAStatus::ok();
  }
  ScopedAStatus Note(int32_t number) override {
    gate.Pass();
    MutexLock lock(mutex_);
    notes_.push_back(number);
    return ScopedAStatus::ok();
  }
  std::shared_ptr<IEcho> held() {
    MutexLock lock(mutex_);
    return held_;
  }
  std::vector<int32_t> notes() {
    MutexLock lock(mutex_);
    return notes_;
  }

  static inline std::atomic<int> destroyed = 0;
  Gate gate{true};
  std::atomic<bool> asks_held = false;
  std::atomic<pid_t> caller_pid = 0;
  std::atomic<uid_t> caller_uid = 0;

 private:
  Mutex mutex_;
  std::shared_ptr<IEcho> held_ GUARDED_BY(mutex_);
  std::vector<int32_t> notes_ GUARDED_BY(mutex_);
};

class BinderTest : public ::testing::Test {
 protected:
  static constexpr char kName[] = "kvoxtest.IEcho/default";

  void SetUp() override { setenv("KVOX_RUNTIME_DIR", directory_.c_str(), 1); }
  void TearDown() override {
    if (service_ != nullptr) service_->gate.Open();
    kvox_host::StopBinder();
  }

  void Serve(uint32_t threads) {
    service_ = ndk::SharedRefBase::make<EchoService>();
    ASSERT_EQ(AServiceManager_addService(service_->asBinder().get(), kName), EX_NONE)
        << kvox::ServiceError();
    ASSERT_TRUE(ABinderProcess_setThreadPoolMaxThreadCount(threads));
    ABinderProcess_startThreadPool();
  }
  std::string Path() const { return SocketPath(directory_, kName); }
  /// Another client with its own connection, once the service has room for it.
  std::shared_ptr<IEcho> Client() const {
    ServiceLink link;
    const auto connects = [&] {
      link = ConnectToService(Path());
      return link.error.empty();
    };
    EXPECT_TRUE(WaitFor(connects)) << link.error;
    return IEcho::fromBinder(link.root);
  }
  static std::vector<uint8_t> Echo(IEcho& client, std::vector<uint8_t> data) {
    std::vector<uint8_t> answer;
    const auto status = client.Echo(data, &answer);
    EXPECT_TRUE(status.isOk()) << status;
    return answer;
  }

  const TempDirectory temporary_;
  const std::string directory_ = temporary_.path();
  std::shared_ptr<EchoService> service_;
};

}  // namespace kvox::binder
