// Which objects the two ends of a connection hold of each other. No I/O.
//
// Either end numbers the objects that it gives away, and counts how often it gave each. The other
// end counts how often it got it, and gives the whole count back when its last reference goes. So a
// reference that is under way while an older one is given back never finds its object gone.
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
class LocalObject;
class RemoteObject;

class ObjectTable {
 public:
  /// What a connection leaves behind.
  struct Orphans {
    std::vector<ndk::SpAIBinder> given;    // local objects
    std::vector<ndk::SpAIBinder> proxies;  // objects of the peer that are still referenced
  };

  /// Gives the peer of `connection` what the parcel refers to: writes the addresses into it and the
  /// frame's object list to `list`. On a failure, which the log explains, nothing was given.
  binder_status_t Give(AParcel& parcel, const Connection& connection, std::vector<uint8_t>* list);
  /// Gives one object and answers its address.
  uint64_t Give(const ndk::SpAIBinder& object);

  /// Takes what a received parcel refers to. Answers what is wrong with the frame, or null; some
  /// objects may be taken already in that case.
  const char* Take(std::span<const uint8_t> parcel, std::span<const uint8_t> list, uint32_t count,
                   const std::shared_ptr<Connection>& connection,
                   std::vector<AParcel::Object>* objects);
  /// Takes one object; null when `address` is none of the peer's.
  ndk::SpAIBinder Take(uint64_t address, std::string_view descriptor,
                       const std::shared_ptr<Connection>& connection);

  /// The object of ours that a peer names; null when it does not hold it.
  ndk::SpAIBinder Given(uint64_t address) const;
  /// The peer gives references back. False when it has not that many. `last` is our reference once
  /// nothing is left, for the caller to drop where that may run code of the object's.
  bool GiveBack(uint64_t address, uint64_t count, ndk::SpAIBinder* last);

  /// A proxy's last reference is gone. How many references to give back; 0 when a new proxy took
  /// them over.
  uint64_t Forget(const RemoteObject& proxy);

  /// Empties the table for good.
  Orphans Close();

 private:
  struct GivenObject {
    ndk::SpAIBinder object;
    uint64_t references = 0;
  };
  struct Proxy {
    RemoteObject* object = nullptr;
    uint64_t references = 0;
  };

  uint64_t GiveLocked(const ndk::SpAIBinder& object) REQUIRES(mutex_);
  binder_status_t CheckGive(const AParcel& parcel, const Connection& connection) const
      REQUIRES(mutex_);
  ndk::SpAIBinder GivenLocked(uint64_t address) const REQUIRES(mutex_);
  ndk::SpAIBinder TakeLocked(uint64_t id, std::string_view descriptor,
                             const std::shared_ptr<Connection>& connection) REQUIRES(mutex_);

  mutable Mutex mutex_;
  bool closed_ GUARDED_BY(mutex_) = false;
  uint64_t last_id_ GUARDED_BY(mutex_) = 0;
  std::unordered_map<uint64_t, GivenObject> given_ GUARDED_BY(mutex_);
  std::unordered_map<const AIBinder*, uint64_t> given_ids_ GUARDED_BY(mutex_);
  std::unordered_map<uint64_t, Proxy> proxies_ GUARDED_BY(mutex_);
};

}  // namespace kvox::binder
