// The client side: every method calls the remote object.
#pragma once

#include <android/binder_ibinder.h>

#include "aidl/kvox/IKvox.h"

namespace aidl::kvox {

class BpKvox : public ProxyBase<IKvox> {
 public:
  using ProxyBase::ProxyBase;
  KVOX_METHODS(KVOX_METHOD_OVERRIDE)
};

}  // namespace aidl::kvox
