#include "sim/socket_path.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <string>

namespace kvox::sim {
namespace {

/// The way leads through a descriptor of the directory, whose name is always short.
template <typename Call>
int WithAddress(const std::filesystem::path& path, Call call) {
  const auto parent = path.has_parent_path() ? path.parent_path() : std::filesystem::path(".");
  const int directory = open(parent.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
  if (directory < 0) return -1;
  const std::string name = fmt::format("/proc/self/fd/{}/{}", directory, path.filename().string());
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  int result = -1;
  if (name.size() < sizeof address.sun_path) {
    std::ranges::copy(name, address.sun_path);
    result = call(reinterpret_cast<const sockaddr*>(&address), socklen_t{sizeof address});
  } else {
    errno = ENAMETOOLONG;
  }
  const int problem = errno;
  close(directory);
  errno = problem;
  return result;
}

}  // namespace

int BindSocket(int socket, const std::filesystem::path& path) {
  const int result = WithAddress(path, [&](auto... address) { return bind(socket, address...); });
  if (result != 0 && errno == EADDRINUSE) errno = EEXIST;  // as of any other node
  return result;
}

int ConnectSocket(int socket, const std::filesystem::path& path) {
  return WithAddress(path, [&](auto... address) { return connect(socket, address...); });
}

}  // namespace kvox::sim
