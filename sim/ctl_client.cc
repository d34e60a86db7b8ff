
#include <fcntl.h>
#include <fmt/ranges.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <stdexcept>

#include "sim/ctl.h"
#include "sim/output.h"

namespace kvox::sim {
namespace {

constexpr int kRefused = 1;
constexpr int kNoReply = 3;
/// How long a simulator may take for each step of the exchange.
constexpr timeval kTimeout{.tv_sec = 5, .tv_usec = 0};
/// The counters of a tap take less than a kilobyte.
constexpr size_t kMaxReply = 16 << 20;

/// The whole reply. Throws std::runtime_error with the reason when there is none.
std::string Exchange(const std::filesystem::path& directory, const std::string& line) {
  const auto require = [](bool good) {
    if (good) return;
    throw std::runtime_error(errno == EAGAIN ? "it takes too long" : std::strerror(errno));
  };
  const UniqueFd parent(open(directory.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
  require(parent.valid());
  const UniqueFd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  require(fd.valid());
  setsockopt(fd.get(), SOL_SOCKET, SO_RCVTIMEO, &kTimeout, sizeof kTimeout);
  setsockopt(fd.get(), SOL_SOCKET, SO_SNDTIMEO, &kTimeout, sizeof kTimeout);
  const sockaddr_un address = SocketAddress(parent, kCtlName);
  require(connect(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0);
  require(send(fd.get(), line.data(), line.size(), MSG_NOSIGNAL) >= 0);
  std::string reply;
  std::array<char, 4096> bytes;
  ssize_t size = 0;
  while ((size = read(fd.get(), bytes.data(), bytes.size())) > 0) {
    reply.append(bytes.data(), static_cast<size_t>(size));
    if (reply.size() > kMaxReply) {
      throw std::runtime_error(fmt::format("its reply is longer than {} bytes", kMaxReply));
    }
  }
  // A line that was too long is not read to its end: the reply comes, then a reset.
  require(size == 0 || (errno == ECONNRESET && !reply.empty()));
  if (!reply.starts_with(kCtlOk) && !reply.starts_with(kCtlRefused)) {
    throw std::runtime_error(std::strerror(ECONNRESET));
  }
  return reply;
}

}  // namespace

int RunCtl(const std::filesystem::path& directory, const std::vector<std::string>& words) {
  for (const std::string& word : words) {
    if (!word.empty() && word.find_first_of(" \t\n\v\f\r") == word.npos) continue;
    Print(stderr, "kvosim: ctl: found \"{}\"; expected words without blanks\n", word);
    return kRefused;
  }
  try {
    const std::string reply = Exchange(directory, fmt::format("{}\n", fmt::join(words, " ")));
    const std::string text = reply.substr(reply.find('\n') + 1);
    if (reply.starts_with(kCtlOk)) {
      Print(stdout, "{}", text);
      return 0;
    }
    Print(stderr, "kvosim: {}", text);
    return kRefused;
  } catch (const std::runtime_error& error) {
    Print(stderr,
          "kvosim: {}: no simulator answers ({}); start kvosim, or set KVOX_DEV_DIR to the "
          "directory it runs in\n",
          (directory / kCtlName).string(), error.what());
    return kNoReply;
  }
}

}  // namespace kvox::sim
