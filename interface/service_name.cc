#include "interface/service_name.h"

#include <aidl/kvox/IKvox.h>

#include <string>

namespace kvox {

const char* KvoxDescriptor() {
  static const auto* const name =
      new std::string(std::string(aidl::kvox::IKvox::descriptor) + "/default");
  return name->c_str();
}

}  // namespace kvox
