// What verbs that change something say of it.
#pragma once

#include <string>

#include "client/command_line/verb.h"

namespace kvox::client {

/// Prints the daemon's own lines when it did what it was asked, else a message that names `object`,
/// the cause and `next_step`. JSON has "status", the `fields`, and "lines" in either case. Answers
/// the exit status.
int Report(const Context& context, const std::string& object, const IKvox::CommandResult& result,
           Fields fields = {}, const std::string& next_step = "the daemon's log tells more");

}  // namespace kvox::client
