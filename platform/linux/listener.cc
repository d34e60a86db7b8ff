#include "platform/linux/listener.h"

#include <errno.h>
#include <sys/socket.h>

#include <cstring>
#include <utility>

#include "kvox/common/log.h"
#include "platform/linux/closer.h"
#include "platform/linux/connection.h"
#include "platform/linux/frames.h"
#include "platform/linux/limits.h"
#include "platform/linux/thread_pool.h"

namespace kvox::binder {
namespace {

void Refuse(UniqueFd client, const Credentials& peer, AdmitResult reason) {
  const ServiceGreeting greeting{.result = reason};
  send(client.get(), &greeting, sizeof greeting, MSG_DONTWAIT | MSG_NOSIGNAL);
  Closer::Get().Close(std::move(client), peer);
}

}  // namespace

Listener::Listener(UniqueFd socket, std::shared_ptr<ServicePort> port)
    : socket_(std::move(socket)), port_(std::move(port)) {}

Listener::~Listener() {
  // Deleting an event waits for its callback. A callback that has not seen the flag may still add
  // the other event, whose callback may add the first one again, but that is all.
  stopping_ = true;
  if (readable_ != nullptr) event_del(readable_);
  if (pause_ != nullptr) event_free(pause_);
  if (readable_ != nullptr) event_free(readable_);
}

bool Listener::Start(event_base* base) {
  const auto accept_pending = [](int, short, void* self) {
    static_cast<Listener*>(self)->AcceptPending();
  };
  const auto end_pause = [](int, short, void* listener) {
    auto* self = static_cast<Listener*>(listener);
    if (!self->stopping_) event_add(self->readable_, nullptr);
  };
  readable_ = event_new(base, socket_.get(), EV_READ | EV_PERSIST, accept_pending, this);
  pause_ = event_new(base, -1, 0, end_pause, this);
  return Closer::Get().Start() && readable_ != nullptr && pause_ != nullptr &&
         event_add(readable_, nullptr) == 0;
}

void Listener::AcceptPending() {
  // The rest are accepted after other events.
  for (int i = 0; i < kMaxAcceptsAtOnce; ++i) {
    if (Closer::Get().behind()) return Pause(kClosingPause);
    UniqueFd client(accept4(socket_.get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
    if (client.valid()) {
      const Credentials peer = PeerCredentials(client.get());
      const AdmitResult result = port_->Admit(peer);
      if (result == AdmitResult::kAdmitted) {
        Connection::Accept(std::move(client), peer, port_);
      } else {
        Refuse(std::move(client), peer, result);
      }
      continue;
    }
    const int error = errno;
    if (error == EINTR || error == ECONNABORTED) continue;
    if (error == EAGAIN) return;
    // Out of descriptors or memory: the client stays in the queue, so retrying at once would spin.
    Pause(kAcceptPause);
    ThreadPool::Get().Post([error] {
      LogWarning("binder: cannot accept a client: %s; trying again", std::strerror(error));
    });
    return;
  }
}

void Listener::Pause(std::chrono::microseconds time) {
  if (stopping_) return;
  const timeval pause{.tv_sec = 0, .tv_usec = time.count()};
  event_del(readable_);
  event_add(pause_, &pause);
}

}  // namespace kvox::binder
