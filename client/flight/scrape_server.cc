#include "client/flight/scrape_server.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <chrono>

#include "client/system/signals.h"
#include "kvox/common/fixed_text.h"
#include "kvox/common/unique_fd.h"
#include "libkvox/errors.h"

namespace kvox::client {
namespace {

using Clock = std::chrono::steady_clock;
constexpr auto kScrapeLimit = std::chrono::seconds(1);
constexpr size_t kLongestRequest = 8192;
constexpr int kWaiting = 8;
constexpr int kPauseMs = 100;

/// "127.0.0.1:9100" or "9100", which is on the loopback address. Throws UsageError.
sockaddr_in AddressOf(const std::string& word) {
  const size_t colon = word.find(':');
  const std::string host = colon == word.npos ? "127.0.0.1" : word.substr(0, colon);
  const std::string port = colon == word.npos ? word : word.substr(colon + 1);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  uint16_t number = 0;
  const auto [end, error] = std::from_chars(port.data(), port.data() + port.size(), number);
  const bool is_port = error == std::errc() && end == port.data() + port.size() && number > 0;
  if (!is_port || inet_pton(AF_INET, host.c_str(), &address.sin_addr) != 1) {
    throw UsageError("--listen: '" + ValidUtf8(word) +
                     "' is no ADDRESS:PORT such as 127.0.0.1:9469");
  }
  address.sin_port = htons(number);
  return address;
}

UniqueFd Listen(const sockaddr_in& address, const std::string& word) {
  UniqueFd server(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  const int on = 1;
  setsockopt(server.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  if (bind(server.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
      listen(server.get(), kWaiting) != 0) {
    throw Failure(kFailed, "cannot listen at " + word + ": " + ErrorText(errno).c_str() +
                               "; name another port");
  }
  return server;
}

/// One scrape, with a deadline. Waits end when they are over or the peer has gone.
class Scrape {
 public:
  explicit Scrape(UniqueFd peer) : peer_(std::move(peer)) {}

  /// The request's first line; "" when none came in time.
  std::string Request() {
    std::string request;
    while (request.find("\r\n\r\n") == request.npos && request.size() < kLongestRequest) {
      char bytes[1024];
      if (!WaitFor(POLLIN)) return "";
      const ssize_t size = read(peer_.get(), bytes, sizeof bytes);
      if (size <= 0) return "";
      request.append(bytes, static_cast<size_t>(size));
    }
    return request.substr(0, request.find("\r\n"));
  }

  void Reply(const char* status, const std::string& body) {
    std::string reply = std::string("HTTP/1.1 ") + status +
                        "\r\nContent-Type: text/plain; version=0.0.4; charset=utf-8"
                        "\r\nConnection: close\r\nContent-Length: " +
                        std::to_string(body.size()) + "\r\n\r\n" + body;
    std::string_view rest = reply;
    while (!rest.empty() && WaitFor(POLLOUT)) {
      const ssize_t size = send(peer_.get(), rest.data(), rest.size(), MSG_NOSIGNAL);
      if (size <= 0) return;
      rest.remove_prefix(static_cast<size_t>(size));
    }
  }

 private:
  bool WaitFor(short event) {
    using std::chrono::milliseconds;
    const auto left = std::chrono::duration_cast<milliseconds>(until_ - Clock::now()).count();
    pollfd ready{.fd = peer_.get(), .events = event, .revents = 0};
    return left > 0 && poll(&ready, 1, static_cast<int>(left)) == 1;
  }

  const UniqueFd peer_;
  const Clock::time_point until_ = Clock::now() + kScrapeLimit;
};

void Serve(UniqueFd peer, const std::function<std::string()>& text) {
  Scrape scrape(std::move(peer));
  const std::string request = scrape.Request();
  if (request.empty()) return;
  if (!request.starts_with("GET ")) return scrape.Reply("405 Method Not Allowed", "GET only\n");
  const std::string path = request.substr(4, request.find_first_of(" ?", 4) - 4);
  if (path != "/metrics" && path != "/") {
    return scrape.Reply("404 Not Found", "see /metrics\n");
  }
  try {
    scrape.Reply("200 OK", text());
  } catch (const std::exception& failure) {  // kvoxd may come back
    scrape.Reply("503 Service Unavailable", std::string(failure.what()) + "\n");
  }
}

}  // namespace

int ServeScrapes(const Context& context, const std::function<std::string()>& text) {
  const SignalFd signals({SIGINT, SIGTERM, SIGHUP});
  const std::string& word = context.in.Get("--listen");
  const sockaddr_in address = AddressOf(word);
  const UniqueFd server = Listen(address, word);
  char host[INET_ADDRSTRLEN] = "";
  inet_ntop(AF_INET, &address.sin_addr, host, sizeof host);
  context.out.Message(std::string("serving http://") + host + ":" +
                      std::to_string(ntohs(address.sin_port)) + "/metrics until interrupted");
  for (;;) {
    pollfd ready[] = {{.fd = signals.fd(), .events = POLLIN, .revents = 0},
                      {.fd = server.get(), .events = POLLIN, .revents = 0}};
    poll(ready, 2, -1);
    if (const int signal = signals.Take(); signal != 0) return EndBySignal(signal);
    const int peer = accept4(server.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
    if (peer >= 0) {
      Serve(UniqueFd(peer), text);
    } else if (errno != EAGAIN) {
      poll(nullptr, 0, kPauseMs);  // out of descriptors, mostly
    }
  }
}

}  // namespace kvox::client
