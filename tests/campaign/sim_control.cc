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

constexpr timeval kTimeout{.tv_sec = 10, .tv_usec = 0};
constexpr std::string_view kOk = "ok\n";

/// null means no buffer.
int Buffer(const nlohmann::json& value) {
  return value.is_number() ? value.get<int>() : -1;
}

TapStats StatsOf(const nlohmann::json& row) {
  const auto count = [&](const char* key) { return row.value(key, uint64_t{0}); };
  return {.enabled = row.at("enabled").get<bool>(),
          .tapout = Buffer(row.at("tapout")),
          .inject = Buffer(row.at("inject")),
          .block_length = row.at("block_length").get<uint32_t>(),
          .jitter_buffer = row.at("jitter_buffer").get<uint32_t>(),
          .sent = count("sent"),
          .exact = count("exact"),
          .exact_in_row = row.at("exact_in_row").get<uint64_t>(),
          .silent = count("silent"),
          .different = count("different"),
          .missing = count("missing"),
          .in_flight = count("in_flight"),
          .received = count("received"),
          .latency_mean_us = row.at("latency_mean_us").get<uint64_t>()};
}

}  // namespace

SimStatus SimControl::Status() const {
  SimStatus status;
  const std::string text = Request("status");
  try {
    const auto json = nlohmann::json::parse(text);
    for (const auto& row : json.at("taps")) status.taps[row.at("tap")] = StatsOf(row);
    for (const auto& row : json.at("injects")) {
      status.injects[row.at("inject").get<int>()] = row.at("packets").get<uint64_t>();
    }
    for (const auto& row : json.at("faults")) {
      status.active_faults +=
          (row.at("active").get<bool>() ? 1 : 0) + row.at("waiting").get<uint64_t>();
    }
  } catch (const nlohmann::json::exception& error) {
    throw SimError(
        fmt::format("kvosim's status cannot be read: {}: {}", error.what(), text.substr(0, 200)));
  }
  return status;
}

std::string SimControl::Request(const std::string& line) const {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (socket_.native().size() >= sizeof address.sun_path) {
    throw SimError(socket_.string() + " is too long for a socket; set TMPDIR to a shorter path");
  }
  std::memcpy(address.sun_path, socket_.c_str(), socket_.native().size() + 1);
  const UniqueFd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  setsockopt(fd.get(), SOL_SOCKET, SO_RCVTIMEO, &kTimeout, sizeof kTimeout);
  setsockopt(fd.get(), SOL_SOCKET, SO_SNDTIMEO, &kTimeout, sizeof kTimeout);
  const std::string request = line + "\n";
  std::string reply;
  std::array<char, 4096> bytes{};
  ssize_t size = -1;
  if (connect(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 &&
      send(fd.get(), request.data(), request.size(), MSG_NOSIGNAL) > 0) {
    while ((size = recv(fd.get(), bytes.data(), bytes.size(), 0)) > 0) {
      reply.append(bytes.data(), static_cast<size_t>(size));
    }
  }
  if (size < 0) {
    throw SimError(fmt::format("kvosim does not reply to '{}' at {}: {}", line, socket_.string(),
                               std::strerror(errno)));
  }
  if (!reply.starts_with(kOk)) throw SimError(fmt::format("kvosim, '{}': {}", line, reply));
  return reply.substr(kOk.size());
}

}  // namespace kvox::campaign
