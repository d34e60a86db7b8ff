// The verb bugreport: what an expert needs to see of a machine where audio fails, in one archive.
#pragma once

#include "client/command_line/verb.h"

namespace kvox::client {

int BugReport(const Context& context);

}  // namespace kvox::client
