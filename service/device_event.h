// Changes in the device directory.
#pragma once

#include <string>

namespace kvox {

struct DeviceEvent {
  enum class Kind {
    kArrived,
    kLeft,
    kAllGone,        // any device may have left unnoticed; existing ones arrive again afterwards
    kDirectoryGone,  // with everything in it; what is there again arrives again
    kRightsChanged,  // or its owner: it may open now
    kOpened,         // the control device, some time after it arrived
  };
  Kind kind;
  std::string name;  // of the node, without its directory; the control device's when all are gone
};

}  // namespace kvox
