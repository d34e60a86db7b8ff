// The name under which the daemon offers its service: the interface's descriptor and the instance.
#pragma once

namespace kvox {

inline const char* KvoxDescriptor() {
  return "kvox.IKvox/default";
}

}  // namespace kvox
