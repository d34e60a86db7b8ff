// A KvoxService in a fake environment: a co-processor that replies as the input says, devices that
// are FIFOs in a private directory, and a recovery that runs on request.
#pragma once

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <filesystem>
#include <iterator>
#include <memory>
#include <span>
#include <string>
#include <utility>

#include "buffer/device_io.h"
#include "fuzz/check.h"
#include "kvox/common/log.h"
#include "kvox/common/unique_fd.h"
#include "tests/support/service_surroundings.h"

namespace kvox::fuzz {

/// Without noise it replies correctly and has the tap points of the use cases. With noise every
/// status and reply is made of its bytes, which repeat.
class NoisyCoprocessor : public FakeCoprocessor {
 public:
  NoisyCoprocessor() { taps = UseCaseTaps(); }
  void SetNoise(std::string noise) {
    noise_ = std::move(noise);
    at_ = 0;
  }

  int32_t SendKvoxCommand(uint16_t opcode, CMD_HDR* record, size_t size) override {
    if (noise_.empty()) return FakeCoprocessor::SendKvoxCommand(opcode, record, size);
    const std::span<std::byte> reply(reinterpret_cast<std::byte*>(record), size);
    for (std::byte& byte : reply.subspan(sizeof(CMD_HDR))) byte = Next();
    return Next() < std::byte{192} ? 0 : -1;
  }

 private:
  std::byte Next() { return static_cast<std::byte>(noise_[at_++ % noise_.size()]); }

  std::string noise_;
  size_t at_ = 0;
};

/// The co-processor's data devices. Any of them may go and come.
class DeviceNodes {
 public:
  static constexpr const char* kNames[] = {"tapout0", "tapout20", "tapout40", "tapout41",
                                           "inject0", "inject20", "inject40", "inject41"};

  DeviceNodes() {
    const char* const parent = std::getenv("TMPDIR");
    std::string name = std::string(parent == nullptr ? "/tmp" : parent) + "/kvox_fuzz.XXXXXX";
    Check(mkdtemp(name.data()) != nullptr, "there is a private directory");
    path_ = name;
    for (size_t i = 0; i < std::size(kNames); ++i) Make(i);
  }
  ~DeviceNodes() { std::filesystem::remove_all(path_); }
  DeviceNodes(const DeviceNodes&) = delete;
  DeviceNodes& operator=(const DeviceNodes&) = delete;

  const std::string& path() const { return path_; }
  static std::string NodeName(size_t device) { return std::string("xdv-kvox_") + kNames[device]; }

  void Make(size_t device) {
    const std::string path = path_ + "/" + NodeName(device);
    if (mkfifo(path.c_str(), 0600) == 0 || !ends_[device].valid()) {
      ends_[device] = UniqueFd(open(path.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC));
    }
  }
  void Remove(size_t device) const { unlink((path_ + "/" + NodeName(device)).c_str()); }

  /// Delivers bytes through a tap-out device.
  void Deliver(size_t device, std::span<const std::byte> bytes) const {
    [[maybe_unused]] const ssize_t size = write(ends_[device].get(), bytes.data(), bytes.size());
  }
  /// Empties every device.
  void Drain() const {
    std::array<std::byte, 65536> bytes;
    for (const UniqueFd& end : ends_) {
      while (read(end.get(), bytes.data(), bytes.size()) > 0) {
      }
    }
  }

 private:
  std::string path_;
  std::array<UniqueFd, std::size(kNames)> ends_;
};

class ServiceWorld {
 public:
  explicit ServiceWorld(DeviceNodes& nodes) : nodes_(nodes) {
    for (size_t i = 0; i < std::size(DeviceNodes::kNames); ++i) nodes.Make(i);
    nodes.Drain();
    ManualRecovery startup([](RecoveryClock&) {});
    service_ = MakeService(link_, SystemDeviceIo(), SystemLog(), nodes.path(), startup, recovery_);
  }

  NoisyCoprocessor& link() { return link_; }
  KvoxService& service() { return *service_; }

  /// Removes or adds the device, and notifies the service.
  void Switch(size_t device, bool present) {
    if (present) {
      nodes_.Make(device);
    } else {
      nodes_.Remove(device);
      recovery_ = nullptr;  // the service ends it
    }
    service_->HandleDeviceEvent({present ? DeviceEvent::Kind::kArrived : DeviceEvent::Kind::kLeft,
                                 DeviceNodes::NodeName(device)});
  }
  /// Runs the recovery until everything possible is restored.
  void Recover() {
    if (recovery_ != nullptr) recovery_->Run();
  }

 private:
  DeviceNodes& nodes_;
  NoisyCoprocessor link_;
  ManualRecovery* recovery_ = nullptr;
  std::shared_ptr<KvoxService> service_;
};

}  // namespace kvox::fuzz
