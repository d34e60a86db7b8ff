#include "service/inventory.h"

#include <utility>

#include "service/limits.h"

namespace kvox {
namespace {

template <typename Map>
auto Values(const Map& map) {
  std::vector<typename Map::mapped_type> values;
  for (const auto& [key, value] : map) values.push_back(value);
  return values;
}

}  // namespace

ProcessorPtr Inventory::FindProcessor(FourCc id) const {
  MutexLock lock(mutex_);
  const auto found = processors_.find(id);
  return found == processors_.end() ? nullptr : found->second;
}

BufferPtr Inventory::Find(bool is_tapout, int number) const {
  MutexLock lock(mutex_);
  const BufferMap& buffers = is_tapout ? tapouts_ : injects_;
  const auto found = buffers.find(number);
  return found == buffers.end() ? nullptr : found->second;
}

BufferPtr Inventory::FindPresent(const KvoxBuffer& buffer) const {
  return Find(buffer.is_tapout(), static_cast<int>(buffer.index()));
}

std::vector<ProcessorPtr> Inventory::Processors() const {
  MutexLock lock(mutex_);
  return Values(processors_);
}

std::vector<BufferPtr> Inventory::TapOuts() const {
  MutexLock lock(mutex_);
  return Values(tapouts_);
}

std::vector<BufferPtr> Inventory::Injects() const {
  MutexLock lock(mutex_);
  return Values(injects_);
}

ProcessorPtr Inventory::ReplaceProcessor(FourCc id, ProcessorPtr created, bool& stored) {
  MutexLock lock(mutex_);
  ProcessorPtr before;
  const auto found = processors_.find(id);
  if (found != processors_.end()) before = std::move(found->second);
  stored = created && (before || processors_.size() < kMaxProcessors);
  if (stored) {
    processors_[id] = std::move(created);
  } else if (before) {
    processors_.erase(found);
  }
  return before;
}

std::vector<BufferPtr> Inventory::AddBuffers(const DeviceScan& scan,
                                             const BufferEnvironment& environment) {
  MutexLock lock(mutex_);
  std::vector<BufferPtr> added;
  const auto add = [&](const std::vector<DataDevice>& devices, bool is_tapout, BufferMap& buffers) {
    for (const DataDevice& device : devices) {
      if (buffers.contains(device.number)) continue;
      added.push_back(std::make_shared<KvoxBuffer>(
          device.name, device.path, static_cast<uint32_t>(device.number), is_tapout, environment));
      buffers.emplace(device.number, added.back());
    }
  };
  add(scan.tapouts, true, tapouts_);
  add(scan.injects, false, injects_);
  return added;
}

std::vector<BufferPtr> Inventory::TakeBuffers() {
  MutexLock lock(mutex_);
  std::vector<BufferPtr> taken = Values(tapouts_);
  for (auto& buffer : Values(injects_)) taken.push_back(std::move(buffer));
  tapouts_.clear();
  injects_.clear();
  return taken;
}

bool Inventory::HasBothKinds() const {
  MutexLock lock(mutex_);
  return !tapouts_.empty() && !injects_.empty();
}

}  // namespace kvox
