// Changes in the device directory.
#pragma once

#include <string>

namespace kvox {

struct DeviceEvent {
  enum class Kind {
    kArrived,
    kLeft,
    kAllGone,  // any device may have left unnoticed; existing ones arrive again afterwards
  };
  Kind kind;
  std::string name;  // of the node, without its directory; with kAllGone the control device's
};

}  // namespace kvox
