#pragma once

#include "kvox/common/unique_fd.h"

namespace kvox::binder {
using kvox::UniqueFd;
}
