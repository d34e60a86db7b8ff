// The verbs that look at the flight log.
#pragma once

#include <string>

#include "client/command_line/verb.h"
#include "kvox/flight/reader.h"

namespace kvox::client {

int Why(const Context& context);
int SaveFlight(const Context& context);
int ShowFlight(const Context& context);
int WriteTrace(const Context& context);
int Metrics(const Context& context);
int Latency(const Context& context);

/// The text of Metrics().
std::string MetricsText(const flight::FlightView& flight);

}  // namespace kvox::client
