#include "bench/bare_calls.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <stdexcept>

namespace kvox::bench {
namespace {

constexpr auto kConnectTimeout = std::chrono::seconds(5);
constexpr auto kConnectPause = std::chrono::milliseconds(5);

sockaddr_un Address(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
  return address;
}

/// Reads messages of one size until the peer closes; waits before each read like a loop that serves
/// several sockets.
void ForEachMessage(int socket, size_t size, auto&& handle) {
  std::vector<std::byte> message(size);
  size_t filled = 0;
  for (;;) {
    pollfd fd{.fd = socket, .events = POLLIN, .revents = 0};
    if (poll(&fd, 1, -1) < 0) continue;
    const ssize_t got = read(socket, message.data() + filled, size - filled);
    if (got <= 0) return;
    filled += static_cast<size_t>(got);
    if (filled < size) continue;
    filled = 0;
    handle();
  }
}

/// A pool of one thread that sends replies.
class Replier {
 public:
  Replier(int socket, size_t reply_size)
      : socket_(socket), reply_(reply_size), thread_([this] { Run(); }) {}
  ~Replier() {
    Change([this]() REQUIRES(mutex_) { ended_ = true; });
    thread_.join();
  }
  void Reply() {
    Change([this]() REQUIRES(mutex_) { ++requests_; });
  }

 private:
  void Change(auto&& change) {
    MutexLock lock(mutex_);
    change();
    changed_.NotifyOne();
  }
  void Run() {
    MutexLock lock(mutex_);
    for (;;) {
      while (requests_ == 0 && !ended_) changed_.Wait(mutex_);
      if (ended_) return;
      --requests_;
      lock.Unlock();
      [[maybe_unused]] const ssize_t sent =
          send(socket_, reply_.data(), reply_.size(), MSG_NOSIGNAL);
      lock.Lock();
    }
  }

  const int socket_;
  const std::vector<std::byte> reply_;
  Mutex mutex_;
  CondVar changed_;
  unsigned requests_ GUARDED_BY(mutex_) = 0;
  bool ended_ GUARDED_BY(mutex_) = false;
  std::thread thread_;
};

int Connect(const std::string& path) {
  const sockaddr_un address = Address(path);
  const auto deadline = std::chrono::steady_clock::now() + kConnectTimeout;
  const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  while (connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    if (std::chrono::steady_clock::now() > deadline) {
      throw std::runtime_error("cannot connect to " + path + ": " + std::strerror(errno));
    }
    std::this_thread::sleep_for(kConnectPause);
  }
  return fd;
}

}  // namespace

int RunBareServer(const std::string& path, CallSizes sizes) {
  const sockaddr_un address = Address(path);
  const int listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
      listen(listener, 1) != 0) {
    fprintf(stderr, "cannot serve %s: %s\n", path.c_str(), std::strerror(errno));
    return 1;
  }
  const int client = accept(listener, nullptr, nullptr);
  Replier replier(client, sizes.reply);
  ForEachMessage(client, sizes.request, [&] { replier.Reply(); });
  return 0;
}

BareClient::BareClient(const std::string& path, CallSizes sizes)
    : sizes_(sizes),
      socket_(Connect(path)),
      request_(sizes.request),
      reader_([this] { ReadReplies(); }) {}

BareClient::~BareClient() {
  shutdown(socket_, SHUT_RDWR);
  reader_.join();
  close(socket_);
}

void BareClient::ReadReplies() {
  ForEachMessage(socket_, sizes_.reply, [this] {
    MutexLock lock(mutex_);
    replied_ = true;
    changed_.NotifyOne();
  });
  MutexLock lock(mutex_);
  ended_ = true;
  changed_.NotifyOne();
}

void BareClient::Call() {
  [[maybe_unused]] const ssize_t sent =
      send(socket_, request_.data(), request_.size(), MSG_NOSIGNAL);
  MutexLock lock(mutex_);
  while (!replied_ && !ended_) changed_.Wait(mutex_);
  if (!replied_) throw std::runtime_error("the bare server has gone");
  replied_ = false;
}

}  // namespace kvox::bench
