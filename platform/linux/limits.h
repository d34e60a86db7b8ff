// Limits on what one peer may use of this process: all limits of the transport.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>

#include "platform/linux/fair_share.h"

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
/// much for a small machine. An ordinary user may have half of what the others leave; so that there
/// is room for others, until eight users have all but the kept ones.
inline constexpr Places kConnections{.all = 128, .kept = 16, .of_privileged_user = 64};

/// Connections of one process. It needs one, however many threads it has; this leaves room for
/// libraries with their own, but no process can shut the others out.
inline constexpr int kMaxConnectionsOfProcess = 8;

/// How long the closing of a descriptor that a peer has sent may take. Short, since a peer may send
/// many.
inline constexpr std::chrono::nanoseconds kLongestClosing = std::chrono::microseconds(100);

/// Sockets that may wait to be closed: a process has a thousand descriptors or more. Beyond that
/// none is accepted until some are closed.
inline constexpr size_t kMaxClosings = 256;
inline constexpr std::chrono::milliseconds kClosingPause{5};

/// Connections that wait to be accepted. Beyond that, clients wait in turn until the handshake
/// times out.
inline constexpr int kListenBacklog = 64;

/// A connection with this much waiting for a pool thread is not read from until half of it is done:
/// enough for a client with dozens of threads, or for one frame of any size.
inline constexpr size_t kPauseRequests = 64;
inline constexpr size_t kPauseRequestBytes = 256 * 1024;

/// Frames above this size are received a few at a time, and only so long from their header on. The
/// largest audio blocks are below it; only long lists are above.
inline constexpr size_t kLargeFrame = 256 * 1024;
inline constexpr Places kLargeFrames{.all = 16, .kept = 4, .of_privileged_user = 4};
inline constexpr std::chrono::seconds kLargeFrameTimeout{3};

/// While we wait for a peer's reply, its connection must be read however many requests wait. A peer
/// that exploits this to pile up requests is disconnected at this limit.
inline constexpr size_t kMaxRequests = 256;
inline constexpr size_t kMaxRequestBytes = 4 * 1024 * 1024;

/// A peer that leaves this many bytes unread is neither read from nor served until it reads.
inline constexpr size_t kPauseUnsentBytes = 128 * 1024;

/// Unless it takes some of them in this time, it is cut off by a service.
inline constexpr std::chrono::seconds kUnreadTimeout{10};

/// Root requests that such a peer may make while we wait for its reply.
inline constexpr int kMaxUnreadQuestions = 64;

/// What all clients of a service may make it hold: requests, from their header until they are
/// served, and unread replies. Above that, the user with the most loses its largest connection.
inline constexpr size_t kMaxBytesOfAll = 32 * 1024 * 1024;

/// Calls to such a peer continue until this many bytes are unsent; then it is cut off. Replies
/// alone never get here: beyond the limit above, the pool only finishes the calls that already run.
inline constexpr size_t kMaxUnsentBytes = 8 * 1024 * 1024;

/// Calls in flight of a service's clients. Each may wait for a device, on a thread of its own and
/// without taking the place of another. The rest wait in their queues. An ordinary user has half of
/// what others leave.
inline constexpr int kMaxWaitingCalls = 64;
inline constexpr Places kCallsInFlight{
    .all = kMaxWaitingCalls, .kept = 8, .of_privileged_user = 32};
inline constexpr int kMaxCallsOfProcess = 4;

/// How long a thread that was started for them stays without work.
inline constexpr std::chrono::seconds kSpareThreadPause{1};

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
