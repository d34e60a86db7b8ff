#include "sim/ctl.h"

#include <event2/buffer.h>
#include <event2/bufferevent.h>
#include <fmt/format.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <sstream>
#include <stdexcept>
#include <utility>

namespace kvox::sim {
namespace {

constexpr uint64_t kResumeNs = 1'000'000'000;

}  // namespace

/// One connection: takes a line, then sends the reply.
class CtlServer::Client {
 public:
  Client(CtlServer& server, int fd)
      : server_(server),
        socket_(bufferevent_socket_new(server.base_, fd, BEV_OPT_CLOSE_ON_FREE)),
        timeout_(server.base_, -1, 0, [this] { End(); }) {
    bufferevent_setcb(socket_.get(), OnRead, nullptr, OnEvent, this);
    // One byte more than the longest line, to detect longer ones.
    bufferevent_setwatermark(socket_.get(), EV_READ, 0, kMaxLine + 1);
    bufferevent_enable(socket_.get(), EV_READ);
    timeout_.AddIn(server.timeout_ns_);
  }

 private:
  struct FreeSocket {
    void operator()(bufferevent* socket) const { bufferevent_free(socket); }
  };

  static void OnRead(bufferevent*, void* self) { static_cast<Client*>(self)->Read(); }
  static void OnSent(bufferevent*, void* self) { static_cast<Client*>(self)->End(); }
  static void OnEvent(bufferevent*, short, void* self) { static_cast<Client*>(self)->End(); }

  void Read() {
    evbuffer* const input = bufferevent_get_input(socket_.get());
    size_t size = 0;
    const std::unique_ptr<char, decltype(&std::free)> line(
        evbuffer_readln(input, &size, EVBUFFER_EOL_LF), &std::free);
    if (line != nullptr) {
      std::istringstream words(std::string(line.get(), size));
      Reply(server_.handler_({std::istream_iterator<std::string>(words), {}}));
    } else if (evbuffer_get_length(input) > kMaxLine) {
      Reply({false, fmt::format("the line is too long; expected {} bytes at most", kMaxLine)});
    }
  }

  void Reply(const CtlReply& reply) {
    exit_ = reply.exit;
    const std::string text = (reply.ok ? kCtlOk : kCtlRefused) + reply.text + "\n";
    bufferevent_disable(socket_.get(), EV_READ);
    bufferevent_setcb(socket_.get(), nullptr, OnSent, OnEvent, this);
    bufferevent_write(socket_.get(), text.data(), text.size());
  }

  void End() {
    if (exit_) event_base_loopexit(server_.base_, nullptr);
    server_.Remove(this);
  }

  CtlServer& server_;
  const std::unique_ptr<bufferevent, FreeSocket> socket_;
  Event timeout_;
  bool exit_ = false;
};

CtlServer::CtlServer(event_base* base, DeviceDirectory& directory, Handler handler,
                     uint64_t timeout_ns)
    : base_(base),
      handler_(std::move(handler)),
      timeout_ns_(timeout_ns),
      resume_(base, -1, 0, [this] { evconnlistener_enable(listener_.get()); }) {
  UniqueFd socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  if (!socket.valid()) {
    throw std::runtime_error(
        fmt::format("no local socket for commands ({})", std::strerror(errno)));
  }
  DeviceNode node{DeviceNode::Kind::kSocket, kCtlName};
  node.socket = socket.get();
  directory.Create(node);
  const auto accept = [](evconnlistener*, int fd, sockaddr*, int, void* self) {
    static_cast<CtlServer*>(self)->Accept(fd);
  };
  listener_.reset(evconnlistener_new(base, accept, this,
                                     LEV_OPT_CLOSE_ON_FREE | LEV_OPT_CLOSE_ON_EXEC, kMaxClients,
                                     socket.get()));
  if (listener_ == nullptr) {
    throw std::runtime_error(fmt::format(
        "{}: cannot listen ({})", directory.PathOf(kCtlName).string(), std::strerror(errno)));
  }
  socket.Release();
  // Out of descriptors: without a pause it would be called again and again.
  evconnlistener_set_error_cb(listener_.get(), [](evconnlistener* listener, void* self) {
    evconnlistener_disable(listener);
    static_cast<CtlServer*>(self)->resume_.AddIn(kResumeNs);
  });
}

CtlServer::~CtlServer() = default;

/// Clients beyond kMaxClients wait in the listener's queue.
void CtlServer::Accept(int fd) {
  clients_.emplace_back(*this, fd);
  if (clients_.size() == kMaxClients) evconnlistener_disable(listener_.get());
}

void CtlServer::Remove(Client* client) {
  clients_.remove_if([&](const Client& each) { return &each == client; });
  evconnlistener_enable(listener_.get());
}

}  // namespace kvox::sim
