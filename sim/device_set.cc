#include "sim/device_set.h"

#include <fmt/format.h>

#include <utility>

#include "kvox/common/kvox_utils.h"
#include "sim/print.h"

namespace kvox::sim {

DeviceSet::DeviceSet(const Surroundings& around)
    : around_(around), channel_(around.base, around.control, [this] { Rewire(); }) {}

std::unique_ptr<DeviceSet> DeviceSet::Create(const Surroundings& around, std::string& error) {
  std::unique_ptr<DeviceSet> made(new DeviceSet(around));
  made->AddDevices();
  for (const auto& device : made->devices_) {
    if (!made->Come(*device, error)) return nullptr;
  }
  return made;
}

void DeviceSet::AddDevices() {
  using Kind = DeviceNode::Kind;
  const auto add = [this](std::string name, Kind kind, std::string node) -> Device& {
    return *devices_.emplace_back(
        std::make_unique<Device>(Device{std::move(name), {kind, std::move(node)}}));
  };
  add("kvo", Kind::kEmptyFile, "kvo");
  add("control", Kind::kSymbolicLink, "xdv-kvox_control").is_control = true;
  for (const uint8_t id : around_.co_processor.injects()) {
    const std::string name = fmt::format("inject{}", id);
    Device& device = add(name, Kind::kFifo, "xdv-kvox_" + name);
    device.inject = std::make_unique<InjectDevice>(
        around_.base, id, around_.directory.PathOf(device.node.name),
        [this, &device](const auto& header, auto payload) { Receive(device, header, payload); });
  }
  for (const uint8_t id : around_.co_processor.tapouts()) {
    const std::string name = fmt::format("tapout{}", id);
    Device& device = add(name, Kind::kFifo, "xdv-kvox_" + name);
    device.tapout =
        std::make_unique<TapOutDevice>(around_.base, id, around_.directory.PathOf(device.node.name),
                                       around_.speed, around_.journal);
  }
}

std::vector<std::string> DeviceSet::Names() const {
  std::vector<std::string> names;
  for (const auto& device : devices_) names.push_back(device->name);
  return names;
}

void DeviceSet::Hold(size_t device, DeviceHold hold) {
  ++devices_[device]->holds[static_cast<size_t>(hold)];
  Apply(*devices_[device]);
}

void DeviceSet::Release(size_t device, DeviceHold hold) {
  uint32_t& holds = devices_[device]->holds[static_cast<size_t>(hold)];
  if (holds > 0) --holds;
  Apply(*devices_[device]);
}

void DeviceSet::ReleaseAll(DeviceHold hold) {
  for (const auto& device : devices_) {
    device->holds[static_cast<size_t>(hold)] = 0;
    Apply(*device);
  }
}

/// Brings a device in line with what is held against it.
void DeviceSet::Apply(Device& device) {
  const bool there = !device.Has(DeviceHold::kAway);
  if (there == device.there) return;
  std::string error;
  if (!there) {
    Go(device);
  } else if (!Come(device, error)) {
    Print(stderr, "kvosim: {}\n", error);
  }
  around_.journal.Say("{} {}", device.name, device.there ? "comes" : "goes");
}

void DeviceSet::Go(Device& device) {
  around_.directory.Remove(device.node.name);
  device.there = false;
  if (device.is_control) channel_.Close();
  if (device.inject) device.inject->Close();
  if (device.tapout) device.tapout->Bar(true);
}

bool DeviceSet::Come(Device& device, std::string& error) {
  if (device.is_control) {
    if (!channel_.Open(error)) return false;
    device.node.target = channel_.slave_path();
  }
  device.there = around_.directory.Create(device.node, error);
  if (!device.there) {
    if (device.is_control) channel_.Close();
    return false;
  }
  if (device.inject && !device.inject->Open(error)) {
    Go(device);
    return false;
  }
  if (device.tapout) device.tapout->Bar(false);
  return true;
}

void DeviceSet::Rewire() {
  for (const auto& device : devices_) {
    if (!device->tapout) continue;
    device->tapout->Attach(around_.co_processor.StreamingInto(device->tapout->id()));
  }
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
  Tap* tap = around_.co_processor.ReceivingFrom(device.inject->id());
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
