// Objects that the two ends of a connection hold of each other. No I/O.
//
// Each end numbers the objects that it exports to the other, and counts how often it sent each. The
// other end counts how often it received it, and releases the whole count with its last reference.
// So an object is never released while a reference to it is in flight.
#pragma once

#include <android/binder_auto_utils.h>

#include <cstdint>
#include <memory>
#include <span>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "kvox/common/mutex.h"
#include "platform/linux/parcel.h"

namespace kvox::binder {

class Connection;
class RemoteObject;

/// Any thread.
class ObjectTable {
 public:
  /// The objects of a closed connection, for the caller to drop where running their code is
  /// allowed.
  struct Orphans {
    std::vector<ndk::SpAIBinder> exported;
    std::vector<ndk::SpAIBinder> proxies;  // of the peer's objects that are still referenced
  };

  /// Exports what the parcel refers to to the peer of `connection`: sets the addresses in the
  /// parcel and `list`, the frame's object list. On a failure, which it logs, nothing is exported.
  binder_status_t Export(AParcel& parcel, const Connection& connection, std::vector<uint8_t>* list);
  /// Exports one object and returns its address.
  uint64_t Export(const ndk::SpAIBinder& object);

  /// Finds what a received parcel refers to, with proxies for the peer's objects. Returns what is
  /// wrong with the frame, or null; then some objects may be in `objects` all the same.
  const char* Import(std::span<const uint8_t> parcel, std::span<const uint8_t> list, uint32_t count,
                     const std::shared_ptr<Connection>& connection,
                     std::vector<AParcel::Object>* objects);
  /// Finds one object. Null when the peer does not hold it, or has too many of its own here.
  ndk::SpAIBinder Import(uint64_t address, std::string_view descriptor,
                         const std::shared_ptr<Connection>& connection);

  /// The exported object that the peer names; null when it does not hold it.
  ndk::SpAIBinder Find(uint64_t address) const;
  /// The peer releases references. False when it does not have that many. `last` is our reference
  /// once none is left, for the caller to drop where running the object's code is allowed.
  bool Release(uint64_t address, uint64_t count, ndk::SpAIBinder* last);
  /// The last reference to a proxy is gone. Returns how many references to release; 0 when a new
  /// proxy has taken them over.
  uint64_t RemoveProxy(const RemoteObject& proxy);

  /// Empties the table permanently.
  Orphans Close();

 private:
  struct ExportedObject {
    ndk::SpAIBinder object;
    uint64_t references = 0;
  };
  struct Proxy {
    RemoteObject* object = nullptr;
    uint64_t references = 0;
  };

  binder_status_t CheckExport(const AParcel& parcel, const Connection& connection) const
      REQUIRES(mutex_);
  uint64_t ExportLocked(const ndk::SpAIBinder& object) REQUIRES(mutex_);
  ndk::SpAIBinder FindLocked(uint64_t address) const REQUIRES(mutex_);
  ndk::SpAIBinder ImportLocked(uint64_t address, std::string_view descriptor,
                               const std::shared_ptr<Connection>& connection) REQUIRES(mutex_);

  mutable Mutex mutex_;
  bool closed_ GUARDED_BY(mutex_) = false;
  uint64_t last_id_ GUARDED_BY(mutex_) = 0;
  std::unordered_map<uint64_t, ExportedObject> exports_ GUARDED_BY(mutex_);
  std::unordered_map<const AIBinder*, uint64_t> export_ids_ GUARDED_BY(mutex_);
  std::unordered_map<uint64_t, Proxy> proxies_ GUARDED_BY(mutex_);
};

}  // namespace kvox::binder
