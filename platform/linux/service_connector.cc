#include "platform/linux/service_connector.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <pwd.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <charconv>
#include <chrono>
#include <cstring>
#include <optional>
#include <utility>
#include <vector>

#include "kvox/common/unique_fd.h"
#include "platform/linux/connection.h"
#include "platform/linux/credentials.h"
#include "platform/linux/frames.h"
#include "platform/linux/runtime_directory.h"
#include "platform/platform.h"

namespace kvox::binder {
namespace {

using Clock = std::chrono::steady_clock;

/// Connects a new socket, which is non-blocking then. While the service's queue is full, waits in
/// turn until `deadline`. Returns 0 or errno.
int Connect(const sockaddr_un& address, Clock::time_point deadline, UniqueFd* fd) {
  *fd = UniqueFd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  const auto* name = reinterpret_cast<const sockaddr*>(&address);
  for (bool waits = true; waits;) {
    const auto now = Clock::now();
    waits = now < deadline;
    const auto left =
        std::chrono::ceil<std::chrono::microseconds>(waits ? deadline - now : Clock::duration());
    const timeval patience{.tv_sec = left.count() / 1'000'000, .tv_usec = left.count() % 1'000'000};
    const int result =
        waits ? setsockopt(fd->get(), SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof patience)
              : fcntl(fd->get(), F_SETFL, O_NONBLOCK);
    if (result != 0) return errno;
    if (connect(fd->get(), name, sizeof address) == 0) {
      return fcntl(fd->get(), F_SETFL, O_NONBLOCK) == 0 ? 0 : errno;
    }
    if (errno != EINTR && errno != EAGAIN) return errno;
  }
  return EAGAIN;
}

/// Reads exactly `size` bytes. False when the peer closes or the deadline passes first.
bool ReceiveExactly(int fd, void* bytes, size_t size, Clock::time_point deadline) {
  auto* at = static_cast<char*>(bytes);
  while (size > 0) {
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
    pollfd readable{.fd = fd, .events = POLLIN, .revents = 0};
    if (left <= 0 || poll(&readable, 1, static_cast<int>(left)) == 0) return false;
    const ssize_t received = recv(fd, at, size, 0);
    if (received == 0 || (received < 0 && errno != EAGAIN && errno != EINTR)) return false;
    if (received < 0) continue;
    at += received;
    size -= static_cast<size_t>(received);
  }
  return true;
}

std::string ExplainRefusal(AdmitResult reason) {
  switch (reason) {
    case AdmitResult::kTooManyOfProcess:
      return "takes " + std::to_string(kMaxConnectionsOfProcess) +
             " clients of one process, and this one has as many; end one";
    case AdmitResult::kTooManyOfUser:
      return "takes no more clients of this user; end one";
    default:
      return "has all the " + std::to_string(kConnections.all) + " clients that it takes; end one";
  }
}

/// Exchanges greetings. Returns what is wrong, or "".
std::string Greet(int fd, ServiceGreeting* greeting, std::string* descriptor,
                  Clock::time_point deadline) {
  const ClientGreeting own;
  // A service that refuses may have closed already; its greeting can still be read.
  send(fd, &own, sizeof own, MSG_NOSIGNAL);
  if (!ReceiveExactly(fd, greeting, sizeof *greeting, deadline)) {
    return "does not answer; is its process stopped, or going down? Try again";
  }
  if (greeting->magic != kTransportMagic || greeting->descriptor_size > kMaxDescriptorSize) {
    return "is a socket of something else; remove it, or set KVOX_RUNTIME_DIR";
  }
  if (greeting->version != kTransportVersion) {
    return "speaks version " + std::to_string(greeting->version) + " of the protocol, not " +
           std::to_string(kTransportVersion) + "; install client and daemon of one release";
  }
  if (greeting->result != AdmitResult::kAdmitted) return ExplainRefusal(greeting->result);
  descriptor->resize(PaddedSize(greeting->descriptor_size));
  if (!ReceiveExactly(fd, descriptor->data(), descriptor->size(), deadline)) {
    return "broke off; try again";
  }
  descriptor->resize(greeting->descriptor_size);
  return "";
}

std::string ExplainConnect(int error) {
  switch (error) {
    case ENOENT:
      return "does not exist; start the daemon, or set KVOX_RUNTIME_DIR to its directory";
    case ECONNREFUSED:
      return "belongs to a process that has ended; start the daemon again";
    case EACCES:
      return "may not be used by this user; join the group of the socket and its directory";
    case EAGAIN:
      return "takes no more clients for now; try again";
  }
  return std::string("cannot be connected to: ") + std::strerror(error);
}

/// The number of the user that the daemon runs as: KVOX_DAEMON_USER, a name or a number, else the
/// one that the packages create. None where there is no such user.
std::optional<uid_t> ConfiguredOwner() {
  const char* const configured = getenv("KVOX_DAEMON_USER");
  const std::string name = configured != nullptr && *configured != '\0' ? configured : "kvox";
  uid_t number = 0;
  const auto [end, error] = std::from_chars(name.data(), name.data() + name.size(), number);
  if (error == std::errc() && end == name.data() + name.size()) return number;
  std::vector<char> strings(1 << 14);
  passwd entry;
  passwd* found = nullptr;
  getpwnam_r(name.c_str(), &entry, strings.data(), strings.size(), &found);
  return found != nullptr ? std::optional(found->pw_uid) : std::nullopt;
}

/// Why not to talk to a service of this user, or "".
std::string Distrust(uid_t owner) {
  if (owner == 0 || owner == geteuid() || owner == ConfiguredOwner()) return "";
  return "belongs to user " + std::to_string(owner) +
         ", who is neither root nor you nor the daemon's user; end that process, or name the "
         "daemon's user in KVOX_DAEMON_USER";
}

}  // namespace

ServiceLink ConnectToService(const std::string& path) {
  ServiceLink link;
  sockaddr_un address;
  if (!MakeAddress(path, &address, &link.error)) return link;
  const auto deadline = Clock::now() + kHandshakeTimeout;
  UniqueFd fd;
  if (const int error = Connect(address, deadline, &fd); error != 0) {
    link.absent = error == ENOENT || error == ENOTDIR;
    link.denied = error == EACCES;
    link.error = path + " " + ExplainConnect(link.absent ? ENOENT : error);
    return link;
  }
  if (const std::string fault = Distrust(PeerCredentials(fd.get()).uid); !fault.empty()) {
    link.denied = true;
    link.error = path + " " + fault;
    return link;
  }
  ServiceGreeting greeting;
  std::string descriptor;
  const std::string fault = Greet(fd.get(), &greeting, &descriptor, deadline);
  if (!fault.empty()) {
    link.error = path + " " + fault;
    return link;
  }
  link.connection = Connection::Join(std::move(fd), greeting.address, descriptor, &link.root);
  if (link.connection == nullptr) {
    link.root = nullptr;
    link.error = "no memory or no thread for a connection";
  }
  return link;
}

}  // namespace kvox::binder

namespace kvox {

std::vector<std::string> ServiceSockets(const char* service) {
  std::vector<std::string> sockets;
  for (const std::string& directory : binder::LookupDirectories()) {
    sockets.push_back(binder::SocketPath(directory, service));
  }
  return sockets;
}

std::optional<ServiceProcess> FindServiceProcess(const std::string& path) {
  sockaddr_un address;
  std::string error;
  UniqueFd fd;
  const auto no_wait = binder::Clock::time_point::min();
  if (!binder::MakeAddress(path, &address, &error) || binder::Connect(address, no_wait, &fd) != 0) {
    return std::nullopt;
  }
  // The process that called listen(), even if it is stopped.
  const binder::Credentials server = binder::PeerCredentials(fd.get());
  return ServiceProcess{.pid = server.pid, .user = server.uid};
}

}  // namespace kvox
