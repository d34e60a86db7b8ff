// A server for monitoring systems that scrape metrics over HTTP.
#pragma once

#include <functional>
#include <string>

#include "client/command_line/verb.h"

namespace kvox::client {

/// Listens at the address and port of --listen and replies to each GET with what `text` returns,
/// until a signal ends it. Scrapes are served one after the other; one that takes longer than a
/// second is dropped. Returns the exit status. Throws UsageError and Failure.
int ServeScrapes(const Context& context, const std::function<std::string()>& text);

}  // namespace kvox::client
