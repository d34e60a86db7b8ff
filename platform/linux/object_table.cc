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
  // The peer knows its own objects.
  return object.AsRemote() != nullptr ? std::string_view() : object.clazz()->descriptor;
}

void AppendEntry(uint32_t position, std::string_view descriptor, std::vector<uint8_t>* list) {
  const ObjectEntry entry{position, static_cast<uint32_t>(descriptor.size())};
  const size_t at = list->size();
  list->resize(at + sizeof entry + PaddedSize(entry.descriptor_size));
  std::memcpy(list->data() + at, &entry, sizeof entry);
  if (!descriptor.empty()) {
    std::memcpy(list->data() + at + sizeof entry, descriptor.data(), descriptor.size());
  }
}

/// One entry of an object list with its reference, as far as they fit together.
struct Reference {
  uint32_t position;
  uint64_t address;
  std::string_view descriptor;
};

/// Cuts the next entry off `list`. False when it or its reference is malformed.
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

binder_status_t ObjectTable::CheckGive(const AParcel& parcel, const Connection& connection) const {
  if (closed_) return STATUS_DEAD_OBJECT;
  size_t more = 0;
  size_t list_size = 0;
  for (const auto& [position, object] : parcel.objects()) {
    const RemoteObject* remote = object.get()->AsRemote();
    if (remote != nullptr && remote->connection() != &connection) {
      LogError("binder: an object of a third process cannot be passed on");
      return STATUS_INVALID_OPERATION;
    }
    const auto descriptor_size = static_cast<uint32_t>(DescriptorOf(*object.get()).size());
    list_size += sizeof(ObjectEntry) + PaddedSize(descriptor_size);
    if (remote == nullptr && !given_ids_.contains(object.get())) ++more;
    if (descriptor_size > kMaxDescriptorSize) list_size = kMaxObjectListSize + 1;
  }
  if (given_.size() + more > kMaxObjects || list_size > kMaxObjectListSize) {
    LogError("binder: too many objects for one peer (%zu, at most %zu) or one call (%zu)",
             given_.size() + more, kMaxObjects, parcel.objects().size());
    return STATUS_FAILED_TRANSACTION;
  }
  return STATUS_OK;
}

binder_status_t ObjectTable::Give(AParcel& parcel, const Connection& connection,
                                  std::vector<uint8_t>* list) {
  if (parcel.objects().empty()) return STATUS_OK;
  MutexLock lock(mutex_);
  const binder_status_t status = CheckGive(parcel, connection);
  if (status != STATUS_OK) return status;
  for (const auto& [position, object] : parcel.objects()) {
    const RemoteObject* remote = object.get()->AsRemote();
    const uint64_t address =
        remote != nullptr ? remote->id() << 1 | kReceiversObject : GiveLocked(object);
    std::memcpy(parcel.mutable_data().data() + position + kReferenceAddressOffset, &address,
                sizeof address);
    AppendEntry(position, DescriptorOf(*object.get()), list);
  }
  return STATUS_OK;
}

uint64_t ObjectTable::Give(const ndk::SpAIBinder& object) {
  MutexLock lock(mutex_);
  return GiveLocked(object);
}

uint64_t ObjectTable::GiveLocked(const ndk::SpAIBinder& object) {
  const auto [known, is_new] = given_ids_.try_emplace(object.get(), last_id_ + 1);
  GivenObject& given = given_[known->second];
  if (is_new) {
    ++last_id_;
    given.object = object;
  }
  ++given.references;
  return known->second << 1;
}

const char* ObjectTable::Take(std::span<const uint8_t> parcel, std::span<const uint8_t> list,
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
    const bool ours = (reference.address & kReceiversObject) != 0;
    ndk::SpAIBinder object =
        ours ? GivenLocked(reference.address)
             : TakeLocked(reference.address >> 1, reference.descriptor, connection);
    if (object.get() == nullptr) {
      return ours ? "a reference to an object that it was never given" : "too many objects";
    }
    objects->push_back({reference.position, std::move(object)});
    first_position = reference.position + kReferenceSize;
  }
  return list.empty() ? nullptr : "an object list that is too long";
}

ndk::SpAIBinder ObjectTable::Take(uint64_t address, std::string_view descriptor,
                                  const std::shared_ptr<Connection>& connection) {
  if ((address & kReceiversObject) != 0) return nullptr;
  MutexLock lock(mutex_);
  return TakeLocked(address >> 1, descriptor, connection);
}

ndk::SpAIBinder ObjectTable::TakeLocked(uint64_t id, std::string_view descriptor,
                                        const std::shared_ptr<Connection>& connection) {
  const auto known = proxies_.find(id);
  if (known == proxies_.end() && proxies_.size() >= kMaxObjects) return nullptr;
  Proxy& proxy = known == proxies_.end() ? proxies_[id] : known->second;
  ++proxy.references;
  if (proxy.object == nullptr || !proxy.object->TryIncStrong()) {
    proxy.object = new RemoteObject(connection, id, std::string(descriptor));
  }
  return ndk::SpAIBinder(proxy.object);
}

ndk::SpAIBinder ObjectTable::Given(uint64_t address) const {
  MutexLock lock(mutex_);
  return GivenLocked(address);
}

ndk::SpAIBinder ObjectTable::GivenLocked(uint64_t address) const {
  const auto given = given_.find(address >> 1);
  const bool held = (address & kReceiversObject) != 0 && given != given_.end();
  return held ? given->second.object : nullptr;
}

bool ObjectTable::GiveBack(uint64_t address, uint64_t count, ndk::SpAIBinder* last) {
  MutexLock lock(mutex_);
  const auto given = given_.find(address >> 1);
  if ((address & kReceiversObject) == 0 || given == given_.end() || count == 0 ||
      count > given->second.references) {
    return false;
  }
  given->second.references -= count;
  if (given->second.references > 0) return true;
  *last = std::move(given->second.object);
  given_ids_.erase(last->get());
  given_.erase(given);
  return true;
}

uint64_t ObjectTable::Forget(const RemoteObject& proxy) {
  MutexLock lock(mutex_);
  const auto known = proxies_.find(proxy.id());
  if (known == proxies_.end() || known->second.object != &proxy) return 0;
  const uint64_t references = known->second.references;
  proxies_.erase(known);
  return references;
}

ObjectTable::Orphans ObjectTable::Close() {
  Orphans orphans;
  MutexLock lock(mutex_);
  closed_ = true;
  for (auto& [id, given] : given_) orphans.given.push_back(std::move(given.object));
  for (const auto& [id, proxy] : proxies_) {
    if (proxy.object->TryIncStrong()) orphans.proxies.emplace_back(proxy.object);
  }
  given_.clear();
  given_ids_.clear();
  proxies_.clear();
  return orphans;
}

}  // namespace kvox::binder
