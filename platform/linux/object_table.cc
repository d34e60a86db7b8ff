#include "platform/linux/object_table.h"

#include <cstring>
#include <utility>

#include "kvox/common/log.h"
#include "platform/linux/binder_object.h"
#include "platform/linux/frames.h"
#include "platform/linux/remote_object.h"

namespace kvox::binder {
namespace {

std::string_view DescriptorOf(AIBinder& object) {
  // The peer needs no descriptor for its own objects.
  return object.AsRemote() != nullptr ? std::string_view() : object.clazz()->descriptor;
}

void AppendEntry(uint32_t position, std::string_view descriptor, std::vector<uint8_t>* list) {
  const ObjectEntry entry{position, static_cast<uint32_t>(descriptor.size())};
  const auto* const bytes = reinterpret_cast<const uint8_t*>(&entry);
  list->insert(list->end(), bytes, bytes + sizeof entry);
  list->insert(list->end(), descriptor.begin(), descriptor.end());
  list->resize(PaddedSize(static_cast<uint32_t>(list->size())));
}

/// One entry of an object list and its reference in the parcel.
struct Reference {
  uint32_t position;
  uint64_t address;
  std::string_view descriptor;
};

/// Removes the first entry from `list`. False when it or its reference is malformed.
bool NextReference(std::span<const uint8_t> parcel, uint32_t first_position,
                   std::span<const uint8_t>* list, Reference* reference) {
  ObjectEntry entry;
  if (list->size() < sizeof entry) return false;
  std::memcpy(&entry, list->data(), sizeof entry);
  *list = list->subspan(sizeof entry);
  if (entry.descriptor_size > kMaxDescriptorSize ||
      PaddedSize(entry.descriptor_size) > list->size() || entry.position < first_position ||
      entry.position % 4 != 0 || entry.position > parcel.size() ||
      parcel.size() - entry.position < kReferenceSize) {
    return false;
  }
  int32_t presence;
  std::memcpy(&presence, parcel.data() + entry.position, sizeof presence);
  std::memcpy(&reference->address, parcel.data() + entry.position + kReferenceAddressOffset,
              sizeof reference->address);
  reference->position = entry.position;
  reference->descriptor = {reinterpret_cast<const char*>(list->data()), entry.descriptor_size};
  *list = list->subspan(PaddedSize(entry.descriptor_size));
  return presence == kReferencePresent;
}

}  // namespace

binder_status_t ObjectTable::CheckExport(const AParcel& parcel,
                                         const Connection& connection) const {
  if (closed_) return STATUS_DEAD_OBJECT;
  size_t count = exports_.size();
  size_t list_size = 0;
  for (const auto& [position, object] : parcel.objects()) {
    const RemoteObject* remote = object.get()->AsRemote();
    if (remote != nullptr && remote->connection() != &connection) {
      LogError("binder: an object of a third process cannot be passed on");
      return STATUS_INVALID_OPERATION;
    }
    const auto descriptor_size = static_cast<uint32_t>(DescriptorOf(*object.get()).size());
    list_size += sizeof(ObjectEntry) + PaddedSize(descriptor_size);
    if (remote == nullptr && !export_ids_.contains(object.get())) ++count;
    if (descriptor_size > kMaxDescriptorSize) list_size = kMaxObjectListSize + 1;
  }
  if (count > kMaxObjects || list_size > kMaxObjectListSize) {
    LogError("binder: too many objects for one peer (%zu, at most %zu) or one call (%zu)", count,
             kMaxObjects, parcel.objects().size());
    return STATUS_FAILED_TRANSACTION;
  }
  return STATUS_OK;
}

binder_status_t ObjectTable::Export(AParcel& parcel, const Connection& connection,
                                    std::vector<uint8_t>* list) {
  if (parcel.objects().empty()) return STATUS_OK;
  MutexLock lock(mutex_);
  const binder_status_t status = CheckExport(parcel, connection);
  if (status != STATUS_OK) return status;
  for (const auto& [position, object] : parcel.objects()) {
    const RemoteObject* remote = object.get()->AsRemote();
    const uint64_t address =
        remote != nullptr ? remote->id() << 1 | kReceiversObject : ExportLocked(object);
    std::memcpy(parcel.mutable_data().data() + position + kReferenceAddressOffset, &address,
                sizeof address);
    AppendEntry(position, DescriptorOf(*object.get()), list);
  }
  return STATUS_OK;
}

uint64_t ObjectTable::Export(const ndk::SpAIBinder& object) {
  MutexLock lock(mutex_);
  return ExportLocked(object);
}

uint64_t ObjectTable::ExportLocked(const ndk::SpAIBinder& object) {
  const auto [id, is_new] = export_ids_.try_emplace(object.get(), last_id_ + 1);
  if (is_new) exports_[++last_id_].object = object;
  ++exports_[id->second].references;
  return id->second << 1;
}

const char* ObjectTable::Import(std::span<const uint8_t> parcel, std::span<const uint8_t> list,
                                uint32_t count, const std::shared_ptr<Connection>& connection,
                                std::vector<AParcel::Object>* objects) {
  if (count == 0) return list.empty() ? nullptr : "an object list without objects";
  MutexLock lock(mutex_);
  uint32_t first_position = 0;
  for (uint32_t i = 0; i < count; ++i) {
    Reference reference;
    if (!NextReference(parcel, first_position, &list, &reference)) {
      return "a malformed object list";
    }
    ndk::SpAIBinder object = ImportLocked(reference.address, reference.descriptor, connection);
    if (object.get() == nullptr) {
      const bool ours = (reference.address & kReceiversObject) != 0;
      return ours ? "a reference to an object that it was never given" : "too many objects";
    }
    objects->push_back({reference.position, std::move(object)});
    first_position = reference.position + kReferenceSize;
  }
  return list.empty() ? nullptr : "an object list that is too long";
}

ndk::SpAIBinder ObjectTable::Import(uint64_t address, std::string_view descriptor,
                                    const std::shared_ptr<Connection>& connection) {
  MutexLock lock(mutex_);
  return ImportLocked(address, descriptor, connection);
}

ndk::SpAIBinder ObjectTable::ImportLocked(uint64_t address, std::string_view descriptor,
                                          const std::shared_ptr<Connection>& connection) {
  if ((address & kReceiversObject) != 0) return FindLocked(address);
  const uint64_t id = address >> 1;
  if (!proxies_.contains(id) && proxies_.size() >= kMaxObjects) return nullptr;
  Proxy& proxy = proxies_[id];
  ++proxy.references;
  if (proxy.object == nullptr || !proxy.object->TryIncStrong()) {
    proxy.object = new RemoteObject(connection, id, std::string(descriptor));
  }
  return ndk::SpAIBinder(proxy.object);
}

ndk::SpAIBinder ObjectTable::Find(uint64_t address) const {
  MutexLock lock(mutex_);
  return FindLocked(address);
}

ndk::SpAIBinder ObjectTable::FindLocked(uint64_t address) const {
  const auto found = exports_.find(address >> 1);
  const bool held = (address & kReceiversObject) != 0 && found != exports_.end();
  return held ? found->second.object : nullptr;
}

bool ObjectTable::Release(uint64_t address, uint64_t count, ndk::SpAIBinder* last) {
  MutexLock lock(mutex_);
  const auto found = exports_.find(address >> 1);
  if ((address & kReceiversObject) == 0 || found == exports_.end() || count == 0 ||
      count > found->second.references) {
    return false;
  }
  found->second.references -= count;
  if (found->second.references > 0) return true;
  *last = std::move(found->second.object);
  export_ids_.erase(last->get());
  exports_.erase(found);
  return true;
}

uint64_t ObjectTable::RemoveProxy(const RemoteObject& proxy) {
  MutexLock lock(mutex_);
  const auto found = proxies_.find(proxy.id());
  if (found == proxies_.end() || found->second.object != &proxy) return 0;
  const uint64_t references = found->second.references;
  proxies_.erase(found);
  return references;
}

ObjectTable::Orphans ObjectTable::Close() {
  Orphans orphans;
  MutexLock lock(mutex_);
  closed_ = true;
  for (auto& [id, exported] : exports_) orphans.exported.push_back(std::move(exported.object));
  for (const auto& [id, proxy] : proxies_) {
    if (proxy.object->TryIncStrong()) orphans.proxies.emplace_back(proxy.object);
  }
  exports_.clear();
  export_ids_.clear();
  proxies_.clear();
  return orphans;
}

}  // namespace kvox::binder
