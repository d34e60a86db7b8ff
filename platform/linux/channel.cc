#include "platform/linux/channel.h"

#include <errno.h>
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

bool MayWorkLater(int error) {
  return error == EAGAIN || error == EINTR || error == ENOBUFS;
}

timeval TimeOf(std::chrono::seconds time) {
  return {.tv_sec = time.count(), .tv_usec = 0};
}

}  // namespace

bool Channel::Open(event_base* base, UniqueFd fd, size_t first_bytes) {
  auto stream = std::make_unique<Stream>();
  stream->fd = std::move(fd);
  const auto make = [&](int of, short what, event_callback_fn run) {
    return Event(event_new(base, of, static_cast<short>(what | EV_PERSIST), run, this));
  };
  const int socket = stream->fd.get();
  const int in_line = 1;
  setsockopt(socket, SOL_SOCKET, SO_OOBINLINE, &in_line, sizeof in_line);
  stream->readable = make(socket, EV_READ, [](int, short, void* channel) {
    static_cast<Channel*>(channel)->OnReadable();
  });
  stream->writable = make(socket, EV_WRITE, [](int, short what, void* channel) {
    static_cast<Channel*>(channel)->OnWritable(what);
  });
  stream->more =
      make(-1, 0, [](int, short, void* channel) { static_cast<Channel*>(channel)->OnMore(); });
  stream->deadline =
      make(-1, 0, [](int, short, void* channel) { static_cast<Channel*>(channel)->OnDeadline(); });
  stream->input.reset(evbuffer_new());
  stream->output.reset(evbuffer_new());
  input_ = stream->input.get();
  needed_ = first_bytes;
  const bool complete = stream->readable && stream->writable && stream->more && stream->deadline &&
                        stream->input && stream->output;
  const timeval handshake = TimeOf(kHandshakeTimeout);
  MutexLock lock(mutex_);
  stream_ = std::move(stream);
  return complete && event_add(stream_->deadline.get(), &handshake) == 0 &&
         event_add(stream_->readable.get(), nullptr) == 0;
}

void Channel::LimitTime(std::chrono::seconds limit) {
  const timeval time = TimeOf(limit);
  MutexLock lock(mutex_);
  if (!stream_ || aborted_) return;
  event_del_noblock(stream_->deadline.get());
  if (limit.count() > 0 && event_add(stream_->deadline.get(), &time) != 0) Abort();
}

void Channel::Break(const char* fault) {
  MutexLock lock(mutex_);
  if (stream_) Abort(fault);
}

bool Channel::Send(Parts parts) {
  MutexLock lock(mutex_);
  if (!stream_ || aborted_) return false;
  size_t sent = 0;
  // Bytes leave the queue only once written, and are added only under our lock: if it is empty,
  // nothing is ahead of us.
  if (evbuffer_get_length(stream_->output.get()) == 0) {
    msghdr message{};
    message.msg_iov = parts.data();
    message.msg_iovlen = parts.size();
    const ssize_t size = sendmsg(stream_->fd.get(), &message, MSG_DONTWAIT | MSG_NOSIGNAL);
    if (size >= 0) {
      sent = static_cast<size_t>(size);
    } else if (!MayWorkLater(errno)) {
      Abort();
      return false;
    }
  }
  return sent == SizeOf(parts) || Queue(parts, sent);
}

bool Channel::Queue(const Parts& parts, size_t sent) {
  evbuffer* const output = stream_->output.get();
  bool queued = evbuffer_get_length(output) + SizeOf(parts) - sent <= kMaxUnsentBytes;
  for (const iovec& part : parts) {
    const size_t skipped = std::min(sent, part.iov_len);
    sent -= skipped;
    if (!queued || skipped == part.iov_len) continue;
    const auto* rest = static_cast<const char*>(part.iov_base) + skipped;
    queued = evbuffer_add(output, rest, part.iov_len - skipped) == 0;
  }
  const size_t unsent = evbuffer_get_length(output);
  if (!queued || !AwaitWritable(unsent)) Abort();
  owner_.OnUnsent(unsent);
  UpdateReadingLocked();
  return !aborted_;
}

/// A peer has its time from the moment at which it leaves too much, and again whenever it takes
/// some.
bool Channel::AwaitWritable(size_t unsent) {
  event* const writable = stream_->writable.get();
  const timeval limit = TimeOf(unread_limit_);
  const bool limited = unread_limit_.count() > 0 && unsent > kPauseUnsentBytes &&
                       event_pending(writable, EV_TIMEOUT, nullptr) == 0;
  return event_add(writable, limited ? &limit : nullptr) == 0;
}

void Channel::OnWritable(short what) {
  MutexLock lock(mutex_);
  if (!stream_ || aborted_) return;
  if ((what & EV_TIMEOUT) != 0) return Abort("calls, and did not read the replies");
  evbuffer* const output = stream_->output.get();
  if (evbuffer_write(output, stream_->fd.get()) < 0 && !MayWorkLater(errno)) return Abort();
  const size_t left = evbuffer_get_length(output);
  if (left > kPauseUnsentBytes / 2) return;
  event_remove_timer(stream_->writable.get());
  if (left == 0) event_del(stream_->writable.get());
  owner_.OnUnsent(left);
  UpdateReadingLocked();
}

bool Channel::UpdateReading() {
  MutexLock lock(mutex_);
  return UpdateReadingLocked();
}

bool Channel::UpdateReadingLocked() {
  if (!stream_ || aborted_) return false;
  const bool wanted = owner_.WantsInput();
  if (wanted == std::exchange(reading_, wanted)) return wanted;
  if (wanted) {
    event_add(stream_->readable.get(), nullptr);
    // The buffer may already contain whole frames, for which no other event comes.
    event_active(stream_->more.get(), 0, 0);
  } else {
    event_del_noblock(stream_->readable.get());
  }
  return wanted;
}

void Channel::Abort(const char* fault) {
  if (std::exchange(aborted_, true)) return;
  fault_ = fault;
  event_del_noblock(stream_->readable.get());
  event_del_noblock(stream_->writable.get());
  event_active(stream_->more.get(), 0, 0);
}

UniqueFd Channel::Close() {
  std::unique_ptr<Stream> stream;
  {
    MutexLock lock(mutex_);
    stream = std::move(stream_);
  }
  return stream ? std::move(stream->fd) : UniqueFd();
}

bool Channel::IsBroken(const char** fault) const {
  MutexLock lock(mutex_);
  *fault = fault_;
  return stream_ == nullptr || aborted_;
}

bool Channel::open() const {
  MutexLock lock(mutex_);
  return stream_ != nullptr && !aborted_;
}

void Channel::OnDeadline() {
  owner_.OnBroken("only a part of what was due");
}

void Channel::OnReadable() {
  const char* fault = nullptr;
  if (!Read(fault)) return owner_.OnBroken(fault);
  if (evbuffer_get_length(input_) >= needed_) GiveInput();
}

/// False when the stream has ended, or must end because of `fault`.
bool Channel::Read(const char*& fault) {
  static std::array<std::byte, kMaxSingleRead> bytes;  // there is one reactor
  // No more than the next frame, unless that is small.
  const size_t most = std::max(needed_, bytes.size());
  const size_t room = most - std::min(most, evbuffer_get_length(input_));
  if (room == 0) return true;
  int fd = -1;
  {
    MutexLock lock(mutex_);
    fd = stream_->fd.get();
  }
  iovec part{.iov_base = bytes.data(), .iov_len = std::min(room, bytes.size())};
  msghdr message{};
  message.msg_iov = &part;
  message.msg_iovlen = 1;
  ssize_t size = recvmsg(fd, &message, MSG_PEEK | MSG_DONTWAIT);
  if (size > 0 && (message.msg_flags & MSG_CTRUNC) != 0) {  // a descriptor would have come with it
    fault = "descriptors";
    return false;
  }
  if (size > 0) size = recv(fd, bytes.data(), static_cast<size_t>(size), MSG_DONTWAIT);
  if (size < 0) return MayWorkLater(errno);
  return size > 0 && evbuffer_add(input_, bytes.data(), static_cast<size_t>(size)) == 0;
}

void Channel::GiveInput() {
  const size_t needed = owner_.OnInput(input_);
  if (needed == 0) return;  // this object may be gone
  needed_ = needed;
  MutexLock lock(mutex_);
  if (!reading_ || aborted_ || evbuffer_get_length(input_) < needed) return;
  event_active(stream_->more.get(), 0, 0);  // after other connections
}

void Channel::OnMore() {
  const char* fault = nullptr;
  if (IsBroken(&fault)) return owner_.OnBroken(fault);
  if (evbuffer_get_length(input_) >= needed_) GiveInput();
}

}  // namespace kvox::binder
