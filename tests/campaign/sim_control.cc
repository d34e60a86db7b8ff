#include "tests/campaign/sim_control.h"

#include <fmt/format.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <nlohmann/json.hpp>
#include <string_view>

#include "kvox/common/unique_fd.h"

namespace kvox::campaign {
namespace {

constexpr timeval kPatience{.tv_sec = 10, .tv_usec = 0};
constexpr std::string_view kOk = "ok\n";

/// null stands for no buffer.
int Buffer(const nlohmann::json& value) {
  return value.is_number() ? value.get<int>() : -1;
}

TapFigures FiguresOf(const nlohmann::json& row) {
  const auto count = [&](const char* key) { return row.value(key, uint64_t{0}); };
  return {.enabled = row.at("enabled").get<bool>(),
          .tapout = Buffer(row.at("tapout")),
          .inject = Buffer(row.at("inject")),
          .block_length = row.at("block_length").get<uint32_t>(),
          .jitter_buffer = row.at("jitter_buffer").get<uint32_t>(),
          .streams = count("streams"),
          .sent = count("sent"),
          .exact = count("exact"),
          .exact_in_row = row.at("exact_in_row").get<uint64_t>(),
          .silent = count("silent"),
          .different = count("different"),
          .missing = count("missing"),
          .in_flight = count("in_flight"),
          .received = count("received")};
}

}  // namespace

SimStatus SimControl::Status() const {
  SimStatus status;
  const std::string text = Ask("status");
  const auto json = nlohmann::json::parse(text, nullptr, false);
  if (json.is_discarded()) throw SimError("kvosim's status is no JSON: " + text.substr(0, 200));
  try {
    for (const auto& row : json.at("taps")) {
      status.taps[row.at("tap").get<std::string>()] = FiguresOf(row);
    }
    for (const auto& row : json.at("faults")) {
      status.faults_at_work +=
          (row.at("active").get<bool>() ? 1 : 0) + row.at("waiting").get<uint64_t>();
    }
  } catch (const nlohmann::json::exception& error) {
    throw SimError(std::string("kvosim's status lacks something: ") + error.what());
  }
  return status;
}

std::string SimControl::Ask(const std::string& line) const {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (socket_.native().size() >= sizeof address.sun_path) {
    throw SimError(socket_.string() + " is too long for a socket; set TMPDIR to a shorter path");
  }
  std::memcpy(address.sun_path, socket_.c_str(), socket_.native().size() + 1);
  const UniqueFd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  setsockopt(fd.get(), SOL_SOCKET, SO_RCVTIMEO, &kPatience, sizeof kPatience);
  setsockopt(fd.get(), SOL_SOCKET, SO_SNDTIMEO, &kPatience, sizeof kPatience);
  const std::string request = line + "\n";
  if (connect(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
      send(fd.get(), request.data(), request.size(), MSG_NOSIGNAL) < 0) {
    throw SimError(fmt::format("kvosim takes no '{}' at {}: {}", line, socket_.string(),
                               std::strerror(errno)));
  }
  std::string answer;
  std::array<char, 4096> bytes{};
  ssize_t size = 0;
  while ((size = recv(fd.get(), bytes.data(), bytes.size(), 0)) > 0) {
    answer.append(bytes.data(), static_cast<size_t>(size));
  }
  if (size < 0)
    throw SimError(fmt::format("kvosim does not answer '{}': {}", line, std::strerror(errno)));
  if (!answer.starts_with(kOk)) throw SimError(fmt::format("kvosim, '{}': {}", line, answer));
  return answer.substr(kOk.size());
}

}  // namespace kvox::campaign
