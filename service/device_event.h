// Changes in the device directory, as what they mean.
#pragma once

#include <string>

namespace kvox {

struct DeviceEvent {
  enum class Kind {
    kArrived,
    kLeft,
    kAllGone,  // any device may have left unnoticed; those that are there arrive afterwards
  };
  Kind kind;
  std::string name;  // of the node, without its directory; with kAllGone the control device's
};

}  // namespace kvox
