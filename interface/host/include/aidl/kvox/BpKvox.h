// The client's side: every method is a call of the remote object.
#pragma once

#include <android/binder_ibinder.h>

#include "aidl/kvox/IKvox.h"

namespace aidl::kvox {

class BpKvox : public ::ndk::BpCInterface<IKvox> {
 public:
  explicit BpKvox(const ::ndk::SpAIBinder& binder) : BpCInterface(binder) {}
  virtual ~BpKvox();
  KVOX_METHODS(KVOX_METHOD_OVERRIDE)
  ::ndk::ScopedAStatus getInterfaceVersion(int32_t* _aidl_return) override;
  ::ndk::ScopedAStatus getInterfaceHash(std::string* _aidl_return) override;

 private:
  std::mutex _cache_mutex;
  std::optional<int32_t> _cached_version;
  std::optional<std::string> _cached_hash;
};

}  // namespace aidl::kvox
