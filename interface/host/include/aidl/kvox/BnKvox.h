// The server side: a service derives from it and implements the methods.
#pragma once

#include <android/binder_ibinder.h>

#include "aidl/kvox/IKvox.h"

namespace aidl::kvox {

class BnKvox : public StubBase<IKvox> {};

}  // namespace aidl::kvox
