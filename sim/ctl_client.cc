
#include <fcntl.h>
#include <fmt/ranges.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <stdexcept>

#include "sim/ctl.h"
#include "sim/output.h"

namespace kvox::sim {
namespace {

constexpr int kRefused = 1;
constexpr int kNoReply = 3;
/// How long a simulator may take for the exchange.
constexpr auto kTimeout = std::chrono::seconds(5);
constexpr char kTooSlow[] = "it takes too long";
/// The counters of a tap take less than a kilobyte.
constexpr size_t kMaxReply = 16 << 20;

/// The whole reply. Throws std::runtime_error with the reason when there is none.
std::string Exchange(const std::filesystem::path& directory, const std::string& line) {
  const auto require = [](bool good) {
    if (good) return;
    throw std::runtime_error(errno == EAGAIN ? kTooSlow : std::strerror(errno));
  };
  const UniqueFd parent(open(directory.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
  require(parent.valid());
  const UniqueFd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  require(fd.valid());
  const auto deadline = std::chrono::steady_clock::now() + kTimeout;
  const auto limit_wait = [&](int option) {
    using std::chrono::microseconds;
    const auto left =
        std::chrono::duration_cast<microseconds>(deadline - std::chrono::steady_clock::now());
    const int64_t us = std::max<int64_t>(left.count(), 1);  // 0 would be no limit
    const timeval wait{.tv_sec = us / 1'000'000, .tv_usec = us % 1'000'000};
    setsockopt(fd.get(), SOL_SOCKET, option, &wait, sizeof wait);
  };
  limit_wait(SO_SNDTIMEO);  // for connecting, too
  const sockaddr_un address = SocketAddress(parent, kCtlName);
  require(connect(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0);
  require(send(fd.get(), line.data(), line.size(), MSG_NOSIGNAL) >= 0);
  std::string reply;
  std::array<char, 4096> bytes;
  ssize_t size = 0;
  const auto receive = [&] {
    limit_wait(SO_RCVTIMEO);
    return read(fd.get(), bytes.data(), bytes.size());
  };
  while ((size = receive()) > 0) {
    if (std::chrono::steady_clock::now() > deadline) throw std::runtime_error(kTooSlow);
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
