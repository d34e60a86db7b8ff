// Limits on what one peer may use of this process: all limits of the transport.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>

namespace kvox::binder {

/// Bytes of one parcel on the wire. Binder's own transaction buffer has this size, so nothing that
/// works there fails here.
inline constexpr uint32_t kMaxParcelSize = 1024 * 1024;

/// Objects that one peer may hold of us, and we of it. A client needs one for each callback; this
/// is room for far more, while the two tables of a hostile peer stay below a megabyte.
inline constexpr size_t kMaxObjects = 1024;

/// Bytes of an interface descriptor; those of the platform are below 100.
inline constexpr uint32_t kMaxDescriptorSize = 256;

/// Bytes of a frame's object list: a hundred references with long descriptors, several hundred with
/// usual ones.
inline constexpr uint32_t kMaxObjectListSize = 32 * 1024;

/// Connections of one service. With a thousand objects and a few megabytes each, more would be too
/// much for a small machine.
inline constexpr size_t kMaxConnections = 128;

/// Connections of one process. It needs one, however many threads it has; this leaves room for
/// libraries with their own, but no process can shut the others out.
inline constexpr int kMaxConnectionsOfProcess = 8;

/// Connections of one user: half of all, so that another user always gets in.
inline constexpr int kMaxConnectionsOfUser = 64;

/// Connections that wait to be accepted. Beyond that, clients retry until the handshake times out.
inline constexpr int kListenBacklog = 64;

/// A connection with this much waiting for a pool thread is not read from until half of it is done:
/// enough for a client with dozens of threads, and for two full-size parcels.
inline constexpr size_t kPauseRequests = 64;
inline constexpr size_t kPauseRequestBytes = 2 * 1024 * 1024;

/// While we wait for a peer's reply, its connection must be read however many requests wait. A peer
/// that exploits this to pile up requests is disconnected at this limit.
inline constexpr size_t kMaxRequests = 256;
inline constexpr size_t kMaxRequestBytes = 4 * 1024 * 1024;

/// A peer that leaves this many bytes unread is neither read from nor served until it reads. One
/// full-size reply never stops anything.
inline constexpr size_t kPauseUnsentBytes = 2 * 1024 * 1024;

/// Calls to such a peer continue until this many bytes are unsent; then it is cut off. Replies
/// alone never get here: beyond the limit above, the pool only finishes the calls that already run.
inline constexpr size_t kMaxUnsentBytes = 8 * 1024 * 1024;

/// What the reactor does for one peer before it serves the others: bytes of one read, frames taken,
/// clients accepted. Each takes a fraction of a millisecond.
inline constexpr size_t kMaxSingleRead = 64 * 1024;
inline constexpr int kMaxFramesAtOnce = 16;
inline constexpr int kMaxAcceptsAtOnce = 16;

/// After this many callbacks the reactor asks the system for new events.
inline constexpr int kMaxCallbacksAtOnce = 8;

/// Allocations from this size on are mapped, so that the system gets them back when they are freed:
/// large frames, and what a buffer works with. By default the allocator raises this to the largest
/// block ever freed, and every thread that handles such blocks keeps an arena of that size.
inline constexpr int kMmapBytes = 64 * 1024;

/// A closed connection that has received this much leaves enough free memory to return it to the
/// system, after a pause in which the rest of it is freed.
inline constexpr size_t kTrimBytes = 1024 * 1024;
inline constexpr std::chrono::seconds kTrimPause{1};

/// Log lines about peers that were cut off; more are counted.
inline constexpr int kDisconnectLinesPerSecond = 8;

/// How long each side waits for the other's greeting. Both send theirs at once, so only a stopped
/// process takes longer.
inline constexpr std::chrono::seconds kHandshakeTimeout{2};

/// Pause between two attempts to accept a client when the process has no descriptors left.
inline constexpr std::chrono::milliseconds kAcceptPause{100};

/// Pause between two look-ups of a service, and how long AServiceManager_getService tries.
inline constexpr std::chrono::milliseconds kLookupInterval{50};
inline constexpr std::chrono::seconds kGetServiceTimeout{5};

}  // namespace kvox::binder
