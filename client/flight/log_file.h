// The flight log that a verb looks at: the daemon's, or a saved one.
#pragma once

#include <string>
#include <vector>

#include "client/command_line/verb.h"
#include "kvox/flight/reader.h"
#include "libkvox/flight/find_flight.h"

namespace kvox::client {

inline const Option kFlightOption = {"--flight", "FILE", Kind::kFile,
                                     "Look at this flight log instead of the daemon's"};

/// The file that --flight names, else the log of the daemon in the first of the directories where
/// there is one. Throws Failure when there is none.
std::string FlightPath(const Input& in);

/// Throws Failure.
flight::FlightView OpenFlight(const Input& in, const flight::Wanted& wanted = {});

/// Now, on the clock of the log; of one that is no longer written, its last moment.
uint64_t EndOf(const flight::FlightView& flight);

/// The value of --last: that long before the end of the log, `absent` where it is not given. "60",
/// "60s", "1.5" are seconds. Throws UsageError.
uint64_t BeginOf(const Input& in, const flight::FlightView& flight, double absent_s);

/// The streams that the argument STREAM names: all without it. Throws Failure when there is none of
/// that name.
std::vector<const flight::StreamView*> StreamsOf(const Input& in, const flight::FlightView& flight);

/// On the wall clock as it was then: nanoseconds since 1970.
uint64_t WallNs(const flight::FlightView& flight, uint64_t at_ns);

/// As local date and time: "2026-11-23", "12:34:56.789".
std::string LocalDate(const flight::FlightView& flight, uint64_t at_ns);
std::string LocalTime(const flight::FlightView& flight, uint64_t at_ns);

}  // namespace kvox::client
