#include "sim/ctl_server.h"

#include <fmt/format.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <sstream>
#include <utility>

namespace kvox::sim {

/// One connection: takes a line, then gives the answer. It only marks itself as done; the server
/// takes it away outside of its events.
class CtlServer::Client {
 public:
  Client(CtlServer& server, int fd)
      : server_(server),
        fd_(fd),
        readable_(server.base_, fd, EV_READ | EV_PERSIST, [this] { Read(); }),
        writable_(server.base_, fd, EV_WRITE, [this] { Write(); }),
        deadline_(server.base_, -1, 0, [this] { End(); }) {
    readable_.Add();
    deadline_.AddIn(kPatienceNs);
  }
  ~Client() {
    readable_.Remove();
    writable_.Remove();
    close(fd_);
  }
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;

  bool done() const { return done_; }

 private:
  void Read() {
    std::array<char, kMaxLine> bytes;
    const ssize_t size = read(fd_, bytes.data(), bytes.size());
    if (size < 0 && (errno == EAGAIN || errno == EINTR)) return;
    if (size <= 0) return End();
    line_.append(bytes.data(), static_cast<size_t>(size));
    const size_t end = line_.find('\n');
    if (end > kMaxLine && line_.size() > kMaxLine) {
      return Give(
          {false, fmt::format("the line is too long; expected {} bytes at most", kMaxLine)});
    }
    if (end == line_.npos) return;
    std::istringstream line(line_.substr(0, end));
    std::vector<std::string> words;
    for (std::string word; line >> word;) words.push_back(word);
    Give(server_.answer_(words));
  }

  void Give(const CtlAnswer& answer) {
    readable_.Remove();
    answer_ = (answer.ok ? kCtlOk : kCtlRefused) + answer.text + "\n";
    Write();
  }

  void Write() {
    const ssize_t size = send(fd_, answer_.data(), answer_.size(), MSG_NOSIGNAL);
    if (size < 0 && errno != EAGAIN && errno != EINTR) return End();
    if (size > 0) answer_.erase(0, static_cast<size_t>(size));
    if (answer_.empty()) return End();
    writable_.Add();
  }

  void End() {
    readable_.Remove();
    writable_.Remove();
    deadline_.Remove();
    done_ = true;
    server_.reap_.AddIn(0);
  }

  CtlServer& server_;
  const int fd_;
  bool done_ = false;
  std::string line_;
  std::string answer_;  // what is left of it
  Event readable_;
  Event writable_;
  Event deadline_;
};

std::unique_ptr<CtlServer> CtlServer::Create(event_base* base, DeviceDirectory& directory,
                                             Answer answer, std::string& error) {
  const int listener = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (listener < 0) {
    error = fmt::format("no local socket for commands ({})", std::strerror(errno));
    return nullptr;
  }
  std::unique_ptr<CtlServer> made(new CtlServer(base, listener, std::move(answer)));
  DeviceNode node{DeviceNode::Kind::kSocket, kCtlName};
  node.socket = listener;
  if (!directory.Create(node, error)) return nullptr;
  if (listen(listener, kMaxClients) == 0) return made;
  error = fmt::format("{}: cannot listen ({})", directory.PathOf(kCtlName).string(),
                      std::strerror(errno));
  return nullptr;
}

CtlServer::CtlServer(event_base* base, int listener, Answer answer)
    : base_(base),
      listener_(listener),
      answer_(std::move(answer)),
      acceptable_(base, listener, EV_READ | EV_PERSIST, [this] { Accept(); }),
      reap_(base, -1, 0, [this] { Reap(); }) {
  acceptable_.Add();
}

CtlServer::~CtlServer() {
  acceptable_.Remove();
  close(listener_);
}

/// Who comes while all places are taken waits in the listener's queue.
void CtlServer::Accept() {
  const int fd = accept4(listener_, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
  if (fd < 0 && (errno == EMFILE || errno == ENFILE)) {
    acceptable_.Remove();  // it would be called again and again
    return reap_.AddIn(kPatienceNs);
  }
  if (fd < 0) return;
  clients_.push_back(std::make_unique<Client>(*this, fd));
  if (clients_.size() == kMaxClients) acceptable_.Remove();
}

void CtlServer::Reap() {
  std::erase_if(clients_, [](const auto& client) { return client->done(); });
  if (clients_.size() < kMaxClients) acceptable_.Add();
}

}  // namespace kvox::sim
