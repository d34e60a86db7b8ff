// The byte stream of one connection. Any thread writes: to the socket directly while it takes
// everything, the rest through the reactor. Only the reactor reads.
//
// A message may carry descriptors. Whoever receives or drops the last one closes it, and closing
// can take as long as its sender likes. So the reactor looks at what it would read first, and takes
// nothing that comes with a descriptor. Urgent bytes are ordinary ones here: otherwise a look would
// not show them, and reading would drop them.
#pragma once

#include <event2/buffer.h>
#include <event2/event.h>
#include <sys/uio.h>

#include <array>
#include <chrono>
#include <cstddef>
#include <memory>

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
  /// The peer is gone, or sending failed, or the peer did what `fault` says, if not null. The owner
  /// closes the channel.
  virtual void OnBroken(const char* fault) = 0;
  virtual bool WantsInput() const = 0;
  /// The peer leaves so many bytes unread. WantsInput is called afterwards.
  virtual void OnUnsent(size_t bytes) = 0;

 protected:
  ~ChannelOwner() = default;
};

class Channel {
 public:
  using Parts = std::array<iovec, 3>;

  /// The channel breaks when the peer leaves many bytes unread and takes none in `unread_limit`, 0
  /// for ever.
  Channel(ChannelOwner& owner, std::chrono::seconds unread_limit)
      : owner_(owner), unread_limit_(unread_limit) {}

  /// Starts to read; calls the owner once there are `first_bytes`. The channel breaks at the end of
  /// the handshake time unless that is limited anew. False when memory is short.
  bool Open(event_base* base, UniqueFd fd, size_t first_bytes);
  /// Breaks the channel when this time has passed, 0 for never, unless it is limited anew. On the
  /// reactor.
  void LimitTime(std::chrono::seconds limit);
  /// OnBroken with that fault follows on the reactor. Any thread, but under no channel's lock.
  void Break(const char* fault);
  /// Sends the parts one after the other, without waiting. False when the channel is closed, or
  /// breaks because of it.
  bool Send(Parts parts);
  /// Starts or stops reading as the owner wants. Returns whether it reads.
  bool UpdateReading();
  /// On the reactor, or when that has ended: no function of the owner is called any more. Returns
  /// the socket; closing it may take long.
  UniqueFd Close();
  bool open() const;

 private:
  struct Free {
    void operator()(event* each) const { event_free(each); }
    void operator()(evbuffer* each) const { evbuffer_free(each); }
  };
  using Event = std::unique_ptr<event, Free>;
  using Buffer = std::unique_ptr<evbuffer, Free>;
  /// What there is while the channel is open.
  struct Stream {
    UniqueFd fd;
    Event readable;
    Event writable;
    Event more;      // there is something to do on the reactor apart from new input
    Event deadline;  // LimitTime's
    Buffer input;
    Buffer output;
  };

  // On the reactor.
  void OnReadable();
  void OnWritable(short what);
  void OnMore();
  void OnDeadline();
  bool Read(const char*& fault);
  void GiveInput();
  bool IsBroken(const char** fault) const;

  bool Queue(const Parts& parts, size_t sent) REQUIRES(mutex_);
  bool AwaitWritable(size_t unsent) REQUIRES(mutex_);
  bool UpdateReadingLocked() REQUIRES(mutex_);
  /// OnBroken follows on the reactor.
  void Abort(const char* fault = nullptr) REQUIRES(mutex_);

  ChannelOwner& owner_;
  const std::chrono::seconds unread_limit_;
  evbuffer* input_ = nullptr;  // the stream's; reactor only
  size_t needed_ = 0;          // reactor only
  mutable Mutex mutex_;
  std::unique_ptr<Stream> stream_ GUARDED_BY(mutex_);  // null: closed
  bool aborted_ GUARDED_BY(mutex_) = false;
  const char* fault_ GUARDED_BY(mutex_) = nullptr;  // why
  bool reading_ GUARDED_BY(mutex_) = true;
};

}  // namespace kvox::binder
