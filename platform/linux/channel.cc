#include "platform/linux/channel.h"

#include <errno.h>
#include <event2/buffer.h>
#include <sys/socket.h>

#include <algorithm>
#include <utility>

#include "platform/linux/frames.h"
#include "platform/linux/limits.h"

namespace kvox::binder {
namespace {

size_t SizeOf(const Channel::Parts& parts) {
  return parts[0].iov_len + parts[1].iov_len + parts[2].iov_len;
}

}  // namespace

bool Channel::Open(event_base* base, UniqueFd fd, size_t first_bytes) {
  // Callbacks are deferred and run without libevent's lock, so that they may take ours.
  constexpr int kOptions = BEV_OPT_CLOSE_ON_FREE | BEV_OPT_THREADSAFE | BEV_OPT_DEFER_CALLBACKS |
                           BEV_OPT_UNLOCK_CALLBACKS;
  bufferevent* stream = bufferevent_socket_new(base, fd.get(), kOptions);
  if (stream == nullptr) return false;
  fd.Release();
  needed_ = first_bytes;
  const auto on_event = [](bufferevent*, short, void* channel) {
    static_cast<Channel*>(channel)->owner_.OnBroken();
  };
  bufferevent_setcb(stream, OnReadable, OnDrained, on_event, this);
  bufferevent_setwatermark(stream, EV_READ, first_bytes, kMaxFrameSize);
  bufferevent_setwatermark(stream, EV_WRITE, kPauseUnsentBytes / 2, 0);
  bufferevent_set_max_single_read(stream, kMaxSingleRead);
  const timeval handshake{.tv_sec = kHandshakeTimeout.count(), .tv_usec = 0};
  bufferevent_set_timeouts(stream, &handshake, nullptr);
  MutexLock lock(mutex_);
  stream_ = stream;
  return bufferevent_enable(stream, EV_READ) == 0;  // writing is enabled from the start
}

void Channel::EndHandshake() {
  MutexLock lock(mutex_);
  if (stream_ != nullptr) bufferevent_set_timeouts(stream_, nullptr, nullptr);
}

bool Channel::Send(Parts parts) {
  MutexLock lock(mutex_);
  if (stream_ == nullptr || aborted_) return false;
  size_t sent = 0;
  // Bytes leave the queue only once written, and are added only under our lock: if it is empty,
  // nothing is ahead of us.
  if (evbuffer_get_length(bufferevent_get_output(stream_)) == 0) {
    msghdr message{};
    message.msg_iov = parts.data();
    message.msg_iovlen = parts.size();
    const ssize_t size = sendmsg(bufferevent_getfd(stream_), &message, MSG_DONTWAIT | MSG_NOSIGNAL);
    if (size >= 0) {
      sent = static_cast<size_t>(size);
    } else if (errno != EAGAIN && errno != EINTR && errno != ENOBUFS) {
      Abort();
      return false;
    }
  }
  return sent == SizeOf(parts) || Queue(parts, sent);
}

bool Channel::Queue(const Parts& parts, size_t sent) {
  evbuffer* output = bufferevent_get_output(stream_);
  bool queued = evbuffer_get_length(output) + SizeOf(parts) - sent <= kMaxUnsentBytes;
  for (const iovec& part : parts) {
    const size_t skipped = std::min(sent, part.iov_len);
    sent -= skipped;
    if (!queued || skipped == part.iov_len) continue;
    const auto* rest = static_cast<const char*>(part.iov_base) + skipped;
    queued = evbuffer_add(output, rest, part.iov_len - skipped) == 0;
  }
  if (!queued) Abort();
  owner_.OnUnsent(evbuffer_get_length(output));
  UpdateReadingLocked();
  return queued;
}

bool Channel::UpdateReading() {
  MutexLock lock(mutex_);
  return UpdateReadingLocked();
}

bool Channel::UpdateReadingLocked() {
  if (stream_ == nullptr || aborted_) return false;
  const bool wanted = owner_.WantsInput();
  if (wanted == std::exchange(reading_, wanted)) return wanted;
  if (wanted) {
    bufferevent_enable(stream_, EV_READ);
    // The buffer may already contain whole frames, for which no other event comes.
    bufferevent_trigger(stream_, EV_READ, BEV_TRIG_IGNORE_WATERMARKS);
  } else {
    bufferevent_disable(stream_, EV_READ);
  }
  return wanted;
}

void Channel::Abort() {
  if (std::exchange(aborted_, true)) return;
  bufferevent_trigger_event(stream_, BEV_EVENT_ERROR, 0);
}

void Channel::Close() {
  bufferevent* stream = nullptr;
  {
    MutexLock lock(mutex_);
    stream = std::exchange(stream_, nullptr);
  }
  if (stream != nullptr) bufferevent_free(stream);
}

bool Channel::open() const {
  MutexLock lock(mutex_);
  return stream_ != nullptr && !aborted_;
}

void Channel::OnReadable(bufferevent* stream, void* channel) {
  auto* self = static_cast<Channel*>(channel);
  evbuffer* const input = bufferevent_get_input(stream);
  const size_t needed = self->owner_.OnInput(input);
  if (needed == 0) return;
  if (needed != std::exchange(self->needed_, needed)) {
    bufferevent_setwatermark(stream, EV_READ, needed, kMaxFrameSize);
  }
  MutexLock lock(self->mutex_);
  if (!self->reading_ || self->aborted_ || evbuffer_get_length(input) < needed) return;
  bufferevent_trigger(stream, EV_READ, BEV_TRIG_IGNORE_WATERMARKS);  // deferred
}

void Channel::OnDrained(bufferevent* stream, void* channel) {
  auto* self = static_cast<Channel*>(channel);
  MutexLock lock(self->mutex_);
  self->owner_.OnUnsent(evbuffer_get_length(bufferevent_get_output(stream)));
  self->UpdateReadingLocked();
}

}  // namespace kvox::binder
