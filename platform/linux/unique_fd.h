// The owner of descriptors under the name that the binder's tests and measurements use.
#pragma once

#include "kvox/common/unique_fd.h"

namespace kvox::binder {
using kvox::UniqueFd;
}
