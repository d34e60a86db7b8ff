// Log lines about the packets of a tap-out buffer. RT: formatted on the stack, into the calling
// thread's log.
#pragma once

#include <string>

#include "buffer/stream_parser.h"
#include "buffer/timing_judge.h"
#include "kvox/common/kvox_packet.h"

namespace kvox {

/// One read's findings, in the order in which they were found.
void LogFindings(const char* buffer, const StreamFindings& findings);

/// A packet that came too early or too late.
void LogTiming(const char* buffer, TimingVerdict::Arrival arrival, float elapsed_ms);

/// The format of the stream, or its block size, has changed.
void LogFormatChange(const char* buffer, const KvoxPacketHeader& before,
                     const KvoxPacketHeader& now);

/// Whether the two headers describe different streams.
bool FormatDiffers(const KvoxPacketHeader& a, const KvoxPacketHeader& b);

}  // namespace kvox
