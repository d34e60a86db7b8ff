// All devices of the simulated co-processor, with their nodes, and what faults hold against each.
// The event loop's thread.
#pragma once

#include <event2/event.h>

#include <array>
#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "sim/coprocessor/co_processor.h"
#include "sim/devices/control_channel.h"
#include "sim/devices/data_devices.h"
#include "sim/devices/device_directory.h"
#include "sim/faults/fault_plan.h"
#include "sim/faults/fault_script.h"
#include "sim/journal.h"

namespace kvox::sim {

/// What is counted of an inject device.
struct InjectCounts {
  uint8_t id = 0;
  uint64_t unbound = 0;  // packets that came while no tap was bound to the device
  ReassemblyCounts stream = {};
};

class DeviceSet {
 public:
  /// All of these outlive the set.
  struct Surroundings {
    event_base* base;
    DeviceDirectory& directory;
    CoProcessor& co_processor;
    ControlExchange& exchange;
    Journal& journal;
    FaultPlan& plan;
    StreamOptions stream;
  };

  /// Creates the nodes. The control device comes before the data devices: a daemon that sees a
  /// device arrive begins to set up what it remembers, and finds somebody who answers. Null with
  /// the reason in `error` when that fails.
  static std::unique_ptr<DeviceSet> Create(const Surroundings& around, std::string& error);

  /// "kvo", "control", "inject0", "tapout0": in the order of creation. Other functions name a
  /// device by its place there.
  std::vector<std::string> Names() const;

  /// From the first hold to the last release of its kind something is wrong with the device.
  void Hold(size_t device, DeviceHold hold);
  void Release(size_t device, DeviceHold hold);
  /// Ends all holds of one kind.
  void ReleaseAll(DeviceHold hold);

  /// Brings the streams in line with what is enabled and bound.
  void Rewire();
  /// Ends the streams and takes what is still in the injects.
  void Stop();

  const ControlChannel& control() const { return channel_; }
  std::vector<InjectCounts> Count() const;

 private:
  struct Device {
    std::string name;
    DeviceNode node;
    std::unique_ptr<TapOutDevice> tapout = nullptr;  // at most one of the two
    std::unique_ptr<InjectDevice> inject = nullptr;
    uint64_t unbound = 0;
    bool is_control = false;
    enum class Node { kNone, kSound, kBroken } there = Node::kNone;
    std::array<uint32_t, kDeviceHolds> holds = {};

    bool Has(DeviceHold hold) const { return holds[static_cast<size_t>(hold)] > 0; }
  };

  explicit DeviceSet(const Surroundings& around);
  void AddDevices();
  void Receive(Device& device, const KvoxPacketHeader& header, std::span<const std::byte> payload);
  void Apply(Device& device);
  bool Replace(Device& device, Device::Node wanted, std::string& error);
  void Go(Device& device);
  bool Come(Device& device, std::string& error);
  bool OpenOrClose(Device& device, std::string& error);
  bool Break(const Device& device, std::string& error);
  void Disturb(const Device& device);
  void FollowTroubles();

  const Surroundings around_;
  ControlChannel channel_;
  std::vector<std::unique_ptr<Device>> devices_;
};

}  // namespace kvox::sim
