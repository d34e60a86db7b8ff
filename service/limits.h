// Limits on what all clients together may use of the service. Those on what one peer may use of the
// transport are in platform/linux/limits.h.
#pragma once

#include <cstddef>
#include <cstdint>

namespace kvox {

/// Processors at a time: clients create them, and each uses memory until a client deletes it. The
/// same number of connections is remembered.
inline constexpr size_t kMaxProcessors = 1024;

/// Buffers that are to run when a client starts one that does not exist: it may name any number.
inline constexpr size_t kMaxRunning = 1024;

/// Statistics entries of all processors together: 16 MiB, enough for a few processors with the
/// maximum. Otherwise a few small calls could use a gigabyte.
inline constexpr uint64_t kMaxStatsEntriesOfAll = (16u << 20) / sizeof(float);

/// Bytes of blocks queued in relays; a relay holds three blocks, and has 16 KiB of its own, more
/// than a phone call needs. 32 MiB are ten relays with the largest possible blocks. Otherwise the
/// relays of one client could use two gigabytes.
inline constexpr size_t kMaxSentAudioBytes = 32u << 20;

/// Threads that call the clients of relays. More than needed, since one that hangs in a client is
/// kept until the client returns or dies.
inline constexpr size_t kMaxClientThreads = 256;

/// How many of them may serve callbacks of one process: a page watches dozens of points.
inline constexpr size_t kMaxThreadsOfClient = 64;

/// Threads that write captures: far more than there are buffers, since one whose file hangs is kept
/// until the write returns.
inline constexpr size_t kMaxCaptureThreads = 1024;

}  // namespace kvox
