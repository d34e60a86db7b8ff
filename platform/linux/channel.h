// The byte stream of one connection. Any thread writes: straight to the socket as long as it takes
// everything, else the rest goes to the reactor. Only the reactor reads.
#pragma once

#include <event2/bufferevent.h>
#include <event2/event.h>
#include <sys/uio.h>

#include <array>
#include <cstddef>

#include "kvox/common/mutex.h"
#include "kvox/common/unique_fd.h"

namespace kvox::binder {

/// What a channel asks of its owner. The first two run on the reactor under no lock, the others
/// under the channel's.
class ChannelOwner {
 public:
  /// Takes what it can from the front of `input`, or a part of it: then it is called again after
  /// the others had their turn. Answers how many bytes it must hold for the next call to be of use,
  /// or 0 when the channel was closed.
  virtual size_t OnInput(evbuffer* input) = 0;
  /// The peer is gone, or sending failed. The owner closes the channel.
  virtual void OnBroken() = 0;
  virtual bool WantsInput() const = 0;
  /// So many bytes wait for the peer to read. WantsInput is asked again afterwards.
  virtual void OnUnsent(size_t bytes) = 0;

 protected:
  ~ChannelOwner() = default;
};

class Channel {
 public:
  using Parts = std::array<iovec, 3>;

  explicit Channel(ChannelOwner& owner) : owner_(owner) {}

  /// Begins to read, and calls the owner once there are `first_bytes`; without them within the
  /// handshake time the channel breaks. False when memory is short.
  bool Open(event_base* base, UniqueFd fd, size_t first_bytes);
  /// The handshake is over: silence is no failure any more.
  void Greeted();
  /// Sends the parts one behind the other, without waiting. False when the channel is closed or
  /// breaks because of it.
  bool Send(Parts parts);
  /// Reads, or stops reading, as the owner wants. Answers which.
  bool UpdateReading();
  /// Reactor only, or when it has ended: no function of the owner is called any more.
  void Close();
  bool open() const;

 private:
  static void OnReadable(bufferevent*, void* channel);
  static void OnDrained(bufferevent*, void* channel);
  static void OnEvent(bufferevent*, short events, void* channel);

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
