#include "sim/devices/device_set.h"

#include <fmt/format.h>

#include <algorithm>
#include <iterator>
#include <stdexcept>
#include <utility>

#include "kvox/common/device_names.h"
#include "kvox/common/kvox_utils.h"

namespace kvox::sim {
namespace {

/// How soon after a change of its devices a daemon has noticed it.
constexpr uint64_t kSettleNs = 500'000'000;

}  // namespace

DeviceSet::DeviceSet(const Context& context)
    : context_(context),
      channel_(context.base, context.commands, context.plan, [this] { Rewire(); }) {
  Add("kvo", DeviceNode::Kind::kEmptyFile, kMarkerDevice);
  Add("control", DeviceNode::Kind::kSymbolicLink, kControlDevice).is_control = true;
  AddDataDevices();
  for (const auto& device : devices_) CreateNode(*device);
}

DeviceSet::Device& DeviceSet::Add(const std::string& name, DeviceNode::Kind kind,
                                  const std::string& node) {
  return *devices_.emplace_back(std::make_unique<Device>(Device{name, {kind, node}}));
}

void DeviceSet::AddDataDevices() {
  for (const uint8_t id : context_.co_processor.scenario().injects) {
    const std::string number = std::to_string(id);
    Device& device = Add("inject" + number, DeviceNode::Kind::kFifo, kInjectPrefix + number);
    device.inject = std::make_unique<InjectDevice>(
        context_.base, id, context_.directory.PathOf(device.node.name),
        [this, &device](const auto& header, auto payload) { Receive(device, header, payload); });
  }
  for (const uint8_t id : context_.co_processor.scenario().tapouts) {
    const std::string number = std::to_string(id);
    Device& device = Add("tapout" + number, DeviceNode::Kind::kFifo, kTapOutPrefix + number);
    device.tapout = std::make_unique<TapOutDevice>(
        context_.base, id, context_.directory.PathOf(device.node.name), context_.stream,
        context_.plan, context_.journal);
  }
}

std::vector<std::string> DeviceSet::Names() const {
  std::vector<std::string> names;
  for (const auto& device : devices_) names.push_back(device->name);
  return names;
}

void DeviceSet::Impair(size_t device, Impairment impairment) {
  ++devices_[device]->impairments[static_cast<size_t>(impairment)];
  Update(*devices_[device]);
}

void DeviceSet::Repair(size_t device, Impairment impairment) {
  uint32_t& count = devices_[device]->impairments[static_cast<size_t>(impairment)];
  if (count > 0) --count;
  Update(*devices_[device]);
}

void DeviceSet::RepairAll(Impairment impairment) {
  for (const auto& device : devices_) {
    device->impairments[static_cast<size_t>(impairment)] = 0;
    Update(*device);
  }
}

/// Brings a device in line with its impairments.
void DeviceSet::Update(Device& device) {
  try {
    SetState(device, device.Has(Impairment::kRemoved)      ? NodeState::kRemoved
                     : device.Has(Impairment::kUnreadable) ? NodeState::kUnreadable
                                                           : NodeState::kPresent);
    if (device.state == NodeState::kPresent) OpenOrClose(device);
  } catch (const std::runtime_error& error) {
    Print(stderr, "kvosim: {}\n", error.what());
  }
  UpdateImpairedTaps();
}

void DeviceSet::SetState(Device& device, NodeState state) {
  if (state == device.state) return;
  // When any node except the marker leaves or arrives, a daemon sets up all data devices again.
  if (device.node.kind != DeviceNode::Kind::kEmptyFile) {
    for (Tap& tap : context_.co_processor.taps()) {
      tap.round_trip.ExcuseLosses(GetTimestampNs() + kSettleNs);
    }
  }
  RemoveNode(device);
  if (state == NodeState::kPresent) CreateNode(device);
  if (state == NodeState::kUnreadable) {
    // A directory can be opened as any node, and every read of it fails.
    context_.directory.Create({DeviceNode::Kind::kDirectory, device.node.name});
  }
  device.state = state;
  const char* const texts[] = {"goes", "comes", "comes, but cannot be read"};
  context_.journal.Log("{} {}", device.name, texts[static_cast<size_t>(state)]);
}

void DeviceSet::CreateNode(Device& device) {
  try {
    if (device.is_control) device.node.target = channel_.Open();
    context_.directory.Create(device.node);
    device.state = NodeState::kPresent;
    OpenOrClose(device);
  } catch (const std::runtime_error&) {
    RemoveNode(device);
    throw;
  }
}

void DeviceSet::RemoveNode(Device& device) {
  context_.directory.Remove(device.node.name);
  device.state = NodeState::kRemoved;
  if (device.is_control) channel_.Close();
  if (device.inject) device.inject->Close();
  if (device.tapout) device.tapout->SetDisabled(true);
}

/// The simulator's end of a device whose node is there.
void DeviceSet::OpenOrClose(Device& device) {
  const bool closed = device.Has(Impairment::kClosed);
  if (device.tapout) device.tapout->SetDisabled(closed);
  if (!device.inject) return;
  device.inject->SetStalled(device.Has(Impairment::kStalled));
  if (closed) {
    device.inject->Close();
  } else {
    device.inject->Open();
  }
}

/// Packets of a tap do not come back while a device that it is bound to is impaired.
void DeviceSet::UpdateImpairedTaps() {
  const uint64_t now = GetTimestampNs();
  for (Tap& tap : context_.co_processor.taps()) {
    const bool impaired = std::ranges::any_of(devices_, [&](const auto& device) {
      const bool bound = (device->inject && device->inject->id() == tap.inject) ||
                         (device->tapout && device->tapout->id() == tap.tapout);
      return bound && device->impaired();
    });
    tap.round_trip.SetImpaired(impaired, now);
  }
}

void DeviceSet::Rewire() {
  for (const auto& device : devices_) {
    if (!device->tapout) continue;
    device->tapout->Attach(context_.co_processor.StreamingInto(device->tapout->id()));
  }
  UpdateImpairedTaps();
}

void DeviceSet::Stop() {
  for (const auto& device : devices_) {
    if (device->tapout) device->tapout->Attach(nullptr);
  }
  for (const auto& device : devices_) {
    if (device->inject) device->inject->Read();
  }
}

void DeviceSet::Receive(Device& device, const KvoxPacketHeader& header,
                        std::span<const std::byte> payload) {
  Tap* tap = context_.co_processor.ReceivingFrom(device.inject->id());
  if (tap == nullptr) {
    ++device.unbound;
  } else {
    tap->Receive(header, payload, GetTimestampNs());
  }
}

std::vector<InjectCounts> DeviceSet::Count() const {
  std::vector<InjectCounts> counts;
  for (const auto& device : devices_) {
    if (!device->inject) continue;
    counts.push_back({device->inject->id(), device->unbound, device->inject->counts()});
  }
  return counts;
}

}  // namespace kvox::sim
