// What all clients together may take of the service. What one peer may take of the transport is in
// platform/linux/limits.h.
#pragma once

#include <cstddef>
#include <cstdint>

namespace kvox {

/// Processors at a time: clients make them, and each takes memory until a client deletes it. As
/// many connections are remembered.
inline constexpr size_t kMaxProcessors = 1024;

/// Statistics entries of one processor: more would not fit into one reply of the transport (1 MiB).
inline constexpr uint32_t kMaxStatsEntries = ((1u << 20) - 4096) / sizeof(float);

/// Statistics entries of all processors together: 16 MiB, for a few clients that keep the most of
/// one processor. Else a few small calls could take a gigabyte.
inline constexpr uint64_t kMaxStatsEntriesOfAll = (16u << 20) / sizeof(float);

/// Bytes of blocks that were sent to relays and wait there; a relay has room for three blocks, and
/// 16 KiB for itself, which is more than a telephone call needs. 32 MiB are ten relays with the
/// largest blocks there can be. Else the relays of one client could take two gigabytes.
inline constexpr size_t kMaxSentAudioBytes = 32u << 20;

/// Threads that call the clients of relays. More than anybody needs: one that hangs in a client is
/// kept until the client returns or dies.
inline constexpr size_t kMaxClientThreads = 64;

/// As many of them may be for callbacks that one process has registered.
inline constexpr size_t kMaxThreadsOfClient = 8;

/// Threads that write captures. More than there are buffers: one whose file hangs is kept until the
/// write returns.
inline constexpr size_t kMaxCaptureThreads = 128;

}  // namespace kvox
