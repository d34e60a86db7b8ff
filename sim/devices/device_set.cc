#include "sim/devices/device_set.h"

#include <fmt/format.h>

#include <algorithm>
#include <iterator>
#include <utility>

#include "kvox/common/kvox_utils.h"
#include "sim/print.h"

namespace kvox::sim {
namespace {

/// How soon after a change of its devices a daemon has noticed it.
constexpr uint64_t kSettleNs = 500'000'000;

}  // namespace

DeviceSet::DeviceSet(const Surroundings& around)
    : around_(around), channel_(around.base, around.exchange, [this] { Rewire(); }) {}

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
                                       around_.stream, around_.plan, around_.journal);
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
  using Node = Device::Node;
  Node wanted = device.Has(DeviceHold::kBroken) ? Node::kBroken : Node::kSound;
  if (device.Has(DeviceHold::kAway)) wanted = Node::kNone;
  std::string error;
  if (!Replace(device, wanted, error)) Print(stderr, "kvosim: {}\n", error);
  if (device.there == Node::kSound && !OpenOrClose(device, error)) {
    Print(stderr, "kvosim: {}\n", error);
  }
  FollowTroubles();
}

bool DeviceSet::Replace(Device& device, Device::Node wanted, std::string& error) {
  using Node = Device::Node;
  if (wanted == device.there) return true;
  Disturb(device);
  if (device.there != Node::kNone) Go(device);
  if (wanted == Node::kSound && !Come(device, error)) return false;
  if (wanted == Node::kBroken && !Break(device, error)) return false;
  device.there = wanted;
  const char* const texts[] = {"goes", "comes", "comes, but cannot be read"};
  around_.journal.Say("{} {}", device.name, texts[static_cast<size_t>(wanted)]);
  return true;
}

/// A departure and an arrival make a daemon set up all data devices anew. The mere file is nothing
/// to it.
void DeviceSet::Disturb(const Device& device) {
  if (device.node.kind == DeviceNode::Kind::kEmptyFile) return;
  for (Tap& tap : around_.co_processor.taps()) {
    tap.round_trip.Disturb(GetTimestampNs() + kSettleNs);
  }
}

/// Packets of a tap do not come back while something is wrong with a device that it is bound to.
void DeviceSet::FollowTroubles() {
  const uint64_t now = GetTimestampNs();
  for (Tap& tap : around_.co_processor.taps()) {
    const bool trouble = std::ranges::any_of(devices_, [&](const auto& device) {
      const bool bound = (device->inject && device->inject->id() == tap.inject) ||
                         (device->tapout && device->tapout->id() == tap.tapout);
      return bound && std::ranges::count(device->holds, 0u) < std::ssize(device->holds);
    });
    tap.round_trip.SetTrouble(trouble, now);
  }
}

void DeviceSet::Go(Device& device) {
  around_.directory.Remove(device.node.name);
  device.there = Device::Node::kNone;
  if (device.is_control) channel_.Close();
  if (device.inject) device.inject->Close();
  if (device.tapout) device.tapout->Bar(true);
}

bool DeviceSet::Come(Device& device, std::string& error) {
  if (device.is_control) {
    if (!channel_.Open(error)) return false;
    device.node.target = channel_.slave_path();
  }
  if (!around_.directory.Create(device.node, error)) {
    if (device.is_control) channel_.Close();
    return false;
  }
  device.there = Device::Node::kSound;
  if (!OpenOrClose(device, error)) {
    Go(device);
    return false;
  }
  return true;
}

/// A directory can be opened as any node, and every read of it fails.
bool DeviceSet::Break(const Device& device, std::string& error) {
  return around_.directory.Create({DeviceNode::Kind::kDirectory, device.node.name}, error);
}

/// Of a device whose node is there the simulator's end.
bool DeviceSet::OpenOrClose(Device& device, std::string& error) {
  const bool closed = device.Has(DeviceHold::kClosed);
  if (device.tapout && device.tapout->barred() != closed) device.tapout->Bar(closed);
  if (!device.inject) return true;
  device.inject->Stall(device.Has(DeviceHold::kStalled));
  if (!closed) return device.inject->Open(error);
  device.inject->Close();
  return true;
}

void DeviceSet::Rewire() {
  for (const auto& device : devices_) {
    if (!device->tapout) continue;
    device->tapout->Attach(around_.co_processor.StreamingInto(device->tapout->id()));
  }
  FollowTroubles();
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
