// The manual pages of the programs, made of the tables that their help is made of. Pure.
#pragma once

#include <string>

#include "manual/roff.h"

namespace kvox::manual {

/// Each answers the whole page.
std::string KvoxctlPage(const Edition& edition);
std::string KvosimPage(const Edition& edition);
std::string KvoxdPage(const Edition& edition);

}  // namespace kvox::manual
