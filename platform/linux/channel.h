// The byte stream of one connection. Any thread writes: to the socket directly while it takes
// everything, the rest through the reactor. Only the reactor reads.
#pragma once

#include <event2/bufferevent.h>
#include <event2/event.h>
#include <sys/uio.h>

#include <array>
#include <cstddef>

#include "kvox/common/mutex.h"
#include "kvox/common/unique_fd.h"

namespace kvox::binder {

/// The channel's owner. The first two functions run on the reactor under no lock, the others under
/// the channel's.
class ChannelOwner {
 public:
  /// Takes what it can from the front of `input`, or some of it: then it is called again after
  /// other connections. Returns how many bytes the next call needs at least, or 0 when it closed
  /// the channel.
  virtual size_t OnInput(evbuffer* input) = 0;
  /// The peer is gone, or sending failed. The owner closes the channel.
  virtual void OnBroken() = 0;
  virtual bool WantsInput() const = 0;
  /// The peer leaves so many bytes unread. WantsInput is called afterwards.
  virtual void OnUnsent(size_t bytes) = 0;

 protected:
  ~ChannelOwner() = default;
};

class Channel {
 public:
  using Parts = std::array<iovec, 3>;

  explicit Channel(ChannelOwner& owner) : owner_(owner) {}

  /// Starts to read; calls the owner once there are `first_bytes`. The channel breaks without them
  /// at the end of the handshake time. False when memory is short.
  bool Open(event_base* base, UniqueFd fd, size_t first_bytes);
  /// Ends the handshake's timeout.
  void EndHandshake();
  /// Sends the parts one after the other, without waiting. False when the channel is closed, or
  /// breaks because of it.
  bool Send(Parts parts);
  /// Starts or stops reading as the owner wants. Returns whether it reads.
  bool UpdateReading();
  /// On the reactor, or when that has ended: no function of the owner is called any more.
  void Close();
  bool open() const;

 private:
  static void OnReadable(bufferevent*, void* channel);
  static void OnDrained(bufferevent*, void* channel);

  bool Queue(const Parts& parts, size_t sent) REQUIRES(mutex_);
  bool UpdateReadingLocked() REQUIRES(mutex_);
  /// OnBroken follows on the reactor.
  void Abort() REQUIRES(mutex_);

  ChannelOwner& owner_;
  size_t needed_ = 0;  // reactor only
  mutable Mutex mutex_;
  bufferevent* stream_ GUARDED_BY(mutex_) = nullptr;  // null: closed
  bool aborted_ GUARDED_BY(mutex_) = false;
  bool reading_ GUARDED_BY(mutex_) = true;
};

}  // namespace kvox::binder
