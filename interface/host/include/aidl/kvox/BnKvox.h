// The server's side: a service derives from it and implements the methods.
#pragma once

#include <android/binder_ibinder.h>

#include "aidl/kvox/IKvox.h"

namespace aidl::kvox {

class BnKvox : public ::ndk::BnCInterface<IKvox> {
 public:
  BnKvox() = default;
  virtual ~BnKvox();
  ::ndk::ScopedAStatus getInterfaceVersion(int32_t* _aidl_return) override;
  ::ndk::ScopedAStatus getInterfaceHash(std::string* _aidl_return) override;

 protected:
  ::ndk::SpAIBinder createBinder() override;
};

}  // namespace aidl::kvox
