// What one peer may take of this process. Every bound of the transport is here.
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

/// Behind its header a frame holds a parcel and at most this much of an object list: one parcel can
/// carry a hundred references with long descriptors, several hundred with usual ones.
inline constexpr uint32_t kMaxObjectListSize = 32 * 1024;

/// Connections of one service. With a thousand objects and a few megabytes for each, this is what a
/// small machine can bear.
inline constexpr size_t kMaxConnections = 128;

/// Of these, one process may have so many. It needs one, however many threads it has; this leaves
/// room for libraries with a connection of their own, but no process can shut the others out.
inline constexpr int kMaxConnectionsOfProcess = 8;

/// And one user so many, however many processes: half of all, so that another user always gets in.
inline constexpr int kMaxConnectionsOfUser = 64;

/// Connections that wait to be accepted. More than that answer "try again" to the client, which
/// does for as long as a handshake may take.
inline constexpr int kListenBacklog = 64;

/// A connection with this much waiting for a pool thread is not read from until half of it is done:
/// enough for a client with dozens of threads, and two full-size parcels.
inline constexpr size_t kPauseRequests = 64;
inline constexpr size_t kPauseRequestBytes = 2 * 1024 * 1024;

/// While we wait for a reply of that very peer its connection must be read on, whatever waits. A
/// peer that uses that to pile up requests is cut off here.
inline constexpr size_t kMaxRequests = 256;
inline constexpr size_t kMaxRequestBytes = 4 * 1024 * 1024;

/// A peer that leaves this many bytes unread is not read from, and gets no further request served,
/// until it reads: one reply of full size never stops anything.
inline constexpr size_t kPauseUnsentBytes = 2 * 1024 * 1024;

/// Calls to such a peer go on until this much waits for it; then it is cut off. Replies alone never
/// get here: beyond the bound above only the pool's threads finish what they are at.
inline constexpr size_t kMaxUnsentBytes = 8 * 1024 * 1024;

/// What the reactor does for one peer before it looks after the others: bytes of one read, frames
/// taken, clients accepted. Each is a fraction of a millisecond.
inline constexpr size_t kMaxSingleRead = 64 * 1024;
inline constexpr int kMaxFramesAtOnce = 16;
inline constexpr int kMaxAcceptsAtOnce = 16;

/// And after so many of these it asks the system which others have sent something.
inline constexpr int kMaxCallbacksAtOnce = 8;

/// Blocks of this size are memory of their own, which the system gets back when they are freed: the
/// largest frames of a peer, and what a buffer works with. Left to itself the allocator raises this
/// to the largest block that was ever freed, and then every thread that has ever handled such
/// blocks keeps an arena that has grown by them.
inline constexpr int kMmapBytes = 64 * 1024;

/// A connection that has brought this much leaves enough free memory behind to give it back to the
/// system, after what of it is still in use has gone as well.
inline constexpr size_t kTrimBytes = 1024 * 1024;
inline constexpr std::chrono::seconds kTrimPause{1};

/// Lines about peers that were cut off; more than that are counted.
inline constexpr int kDisconnectLinesPerSecond = 8;

/// How long either side waits for the other's first bytes. They are sent without being asked for,
/// so only a stopped process takes longer.
inline constexpr std::chrono::seconds kHandshakeTimeout{2};

/// Pause of the acceptor when the process has no descriptors left.
inline constexpr std::chrono::milliseconds kAcceptPause{100};

/// Pause between two look-ups of a service that is not there, and how long getService goes on.
inline constexpr std::chrono::milliseconds kLookupInterval{50};
inline constexpr std::chrono::seconds kGetServiceTimeout{5};

}  // namespace kvox::binder
