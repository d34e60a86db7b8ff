// The name under which the daemon offers its service.
#pragma once

namespace kvox {

/// "kvox.IKvox/default". Any thread; lives for ever.
const char* KvoxDescriptor();

}  // namespace kvox
