// All devices of the simulated co-processor, with their nodes, and what faults do to them. The
// event loop's thread.
#pragma once

#include <array>
#include <cstdint>
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
#include "sim/output.h"

namespace kvox::sim {

struct InjectCounts {
  uint8_t id = 0;
  uint64_t unbound = 0;  // packets that came while no tap was bound to the device
  ReassemblyCounts stream = {};
};

class DeviceSet {
 public:
  /// All of these outlive the set.
  struct Context {
    event_base* base;
    DeviceDirectory& directory;
    CoProcessor& co_processor;
    CommandHandler& commands;
    Journal& journal;
    FaultPlan& plan;
    StreamOptions stream;
  };

  /// Creates the nodes, the control device before the data devices: a daemon that sees a device
  /// arrive sends commands at once. Throws std::runtime_error.
  explicit DeviceSet(const Context& context);

  /// "kvo", "control", "inject0", "tapout0": in the order of creation. Other functions name a
  /// device by its index there.
  std::vector<std::string> Names() const;

  /// A device is impaired until each Impair() had its Repair(). Problems with the node are printed
  /// on standard error.
  void Impair(size_t device, Impairment impairment);
  void Repair(size_t device, Impairment impairment);
  /// Ends one impairment of all devices.
  void RepairAll(Impairment impairment);

  /// Starts and ends streams after taps were enabled, disabled or bound.
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
    enum class NodeState { kRemoved, kPresent, kUnreadable } state = NodeState::kRemoved;
    std::array<uint32_t, kImpairments> impairments = {};

    bool Has(Impairment impairment) const {
      return impairments[static_cast<size_t>(impairment)] > 0;
    }
    bool impaired() const { return impairments != decltype(impairments){}; }
  };
  using NodeState = Device::NodeState;

  Device& Add(const std::string& name, DeviceNode::Kind kind, const std::string& node);
  void AddDataDevices();
  void Receive(Device& device, const KvoxPacketHeader& header, std::span<const std::byte> payload);
  void Update(Device& device);
  void SetState(Device& device, NodeState state);
  void CreateNode(Device& device);
  void RemoveNode(Device& device);
  void OpenOrClose(Device& device);
  void UpdateImpairedTaps();

  const Context context_;
  ControlChannel channel_;
  std::vector<std::unique_ptr<Device>> devices_;
};

}  // namespace kvox::sim
