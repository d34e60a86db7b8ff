// Where services are on a host, and who serves them: for those who look for what is wrong.
#include <sys/socket.h>
#include <sys/un.h>

#include "kvox/common/unique_fd.h"
#include "platform/linux/credentials.h"
#include "platform/linux/runtime_directory.h"
#include "platform/platform.h"

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
  if (!binder::MakeAddress(path, &address, &error)) return std::nullopt;
  const UniqueFd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  const auto* const name = reinterpret_cast<const sockaddr*>(&address);
  if (!fd.valid() || connect(fd.get(), name, sizeof address) != 0) return std::nullopt;
  // The process that called listen(), even if it is stopped.
  const binder::Credentials server = binder::PeerCredentials(fd.get());
  return ServiceProcess{.pid = server.pid, .user = server.uid};
}

}  // namespace kvox
