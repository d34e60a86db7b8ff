// The kinds of processors that clients can create.
#pragma once

#include <vector>

#include "kvox/common/four_cc.h"
#include "processors/processor_host.h"
#include "service/inventory.h"

namespace kvox {

struct ProcessorKind {
  FourCc type;
  ProcessorPtr (*make)(FourCc id, ProcessorHost& host);
};

/// In the order in which they are listed. A product adds its own before the service starts.
std::vector<ProcessorKind>& ProcessorKinds();

}  // namespace kvox
