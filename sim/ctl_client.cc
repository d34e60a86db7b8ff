#include "sim/ctl_client.h"

#include <fmt/ranges.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <tuple>

#include "sim/ctl_server.h"
#include "sim/print.h"
#include "sim/socket_path.h"

namespace kvox::sim {
namespace {

constexpr int kRefused = 1;
constexpr int kNobody = 3;
/// How long a simulator may take for each step of the exchange.
constexpr timeval kPatience{.tv_sec = 5, .tv_usec = 0};

/// The whole answer; empty when there is none, with the reason in errno.
std::string Exchange(int fd, const std::filesystem::path& path, const std::string& line) {
  setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &kPatience, sizeof kPatience);
  setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &kPatience, sizeof kPatience);
  if (ConnectSocket(fd, path) != 0) return "";
  if (send(fd, line.data(), line.size(), MSG_NOSIGNAL) < 0) return "";
  std::string answer;
  std::array<char, 4096> bytes;
  ssize_t size = 0;
  while ((size = read(fd, bytes.data(), bytes.size())) > 0) {
    answer.append(bytes.data(), static_cast<size_t>(size));
  }
  return answer;
}

}  // namespace

int RunCtl(const std::filesystem::path& directory, const std::vector<std::string>& words) {
  for (const std::string& word : words) {
    if (!word.empty() && word.find_first_of(" \t\n\v\f\r") == word.npos) continue;
    Print(stderr, "kvosim: ctl: found \"{}\"; expected words without blanks\n", word);
    return kRefused;
  }
  const auto path = directory / kCtlName;
  const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const std::string answer =
      fd < 0 ? "" : Exchange(fd, path, fmt::format("{}\n", fmt::join(words, " ")));
  const int problem = answer.empty() && errno == 0 ? ECONNRESET : errno;
  if (fd >= 0) close(fd);
  for (const auto& [begin, status, file] :
       {std::tuple(kCtlOk, 0, stdout), std::tuple(kCtlRefused, kRefused, stderr)}) {
    if (!answer.starts_with(begin)) continue;
    const char* prefix = status == 0 ? "" : "kvosim: ";
    Print(file, "{}{}", prefix, answer.substr(std::strlen(begin)));
    return status;
  }
  Print(stderr,
        "kvosim: {}: no simulator answers ({}); start kvosim, or set KVOX_DEV_DIR to the directory "
        "it runs in\n",
        path.string(), problem == EAGAIN ? "it takes too long" : std::strerror(problem));
  return kNobody;
}

}  // namespace kvox::sim
