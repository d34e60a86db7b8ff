// What went wrong in a flight log: symptoms of packets, grouped by stream and cause.
//
// Pure: no I/O.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "libkvox/flight/blame.h"

namespace kvox::client {

struct Incident {
  std::string stream;
  Blame blame;  // with the evidence of the first symptom
  uint64_t first_ns = 0;
  uint64_t last_ns = 0;
  uint32_t first_number = 0;  // of the packet that showed the first symptom

  // Packets.
  uint64_t lost = 0;  // itself or missing before it
  uint64_t late = 0;
  uint64_t early = 0;
  uint64_t repeated = 0;
  uint64_t interruptions = 0;
  uint64_t longest_ns = 0;  // of lateness or interruption
};

/// In a sentence: "the co-processor sent packets late".
std::string CauseText(const Blame& blame);
/// For programs: "coprocessor_late"; the same words in every release.
const char* CauseWord(Cause cause);
/// What to do about it.
const char* Advice(Cause cause);

/// Symptoms of the same cause that are less than two seconds apart are one incident. In the order
/// in which they began.
std::vector<Incident> FindIncidents(const FlightView& flight, const StreamView& stream,
                                    uint64_t from_ns, uint64_t until_ns = UINT64_MAX);

/// Since when the stream's records are complete: `from_ns`, or later when they reach back less far.
uint64_t CoveredFrom(const StreamView& stream, uint64_t from_ns);

/// The packets lost; where none is, the packets late, early and sent twice, and interruptions.
uint64_t CountOf(const Incident& incident);

/// "12 packets lost, 3 late by up to 8.1 ms"
std::string CountsOf(const Incident& incident);

/// Whether audio was lost, and not because somebody wanted it.
bool IsLoss(const Incident& incident);

}  // namespace kvox::client
