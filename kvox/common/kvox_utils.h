// Small helpers that several folders share: format codes, the packet clock, thread priority.
// Every function may be called from any thread.
#pragma once

#include <cstdint>

namespace kvox {

inline constexpr uint8_t kNoSampleRateCode = 255;
inline constexpr uint32_t kNoSampleSizeCode = 0xFFFFFFFF;

/// Code of a sample rate in Hz: 0 to 7 for 8000, 16000, 24000, 32000, 44100, 48000, 96000 and
/// 192000; kNoSampleRateCode for any other rate, however close.
uint8_t SampleRateToEnum(unsigned int rate);

/// The sample rate in Hz of a code; 0 for no code.
unsigned int SampleRateOfCode(uint8_t code);

/// Code of a sample size in bits: 0 to 3 for 8, 16, 24 and 32, else kNoSampleSizeCode.
uint32_t BitsPerSampleToEnum(unsigned int bits);

/// RT: raw monotonic clock in nanoseconds, never set back by clock changes. Computed in double
/// precision, so exact up to 104 days of uptime and rounded beyond.
uint64_t GetTimestampNs();

/// Nanoseconds since 1970, as the system's clock has it.
uint64_t WallClockNs();

/// The priority that SetThreadRealtimePriority() requests.
int RealtimePriority();

/// Puts the calling thread under SCHED_FIFO at its highest priority. Returns 0, or the system
/// call's result, which it logs; the thread's scheduling is then unchanged.
int SetThreadRealtimePriority();

/// Names the calling thread for debuggers and /proc (at most 15 characters are kept).
void SetThreadName(const char* name);

}  // namespace kvox
