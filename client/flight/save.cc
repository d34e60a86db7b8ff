// The verb flight save: a copy of the flight log, with its holes.

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <optional>
#include <string_view>

#include "client/flight/log_file.h"
#include "client/flight/verbs.h"
#include "client/output/json.h"
#include "client/system/files.h"
#include "kvox/common/fixed_text.h"
#include "kvox/common/unique_fd.h"

namespace kvox::client {
namespace {

using Block = std::array<char, flight::kPage>;

/// Copies what is not zero. Returns the bytes written; none, with errno set, when that fails.
std::optional<size_t> CopySparsely(int from, int to) {
  size_t written = 0;
  Block block;
  constexpr auto kStep = static_cast<off_t>(sizeof block);
  for (off_t at = 0; at < static_cast<off_t>(sizeof(flight::File)); at += kStep) {
    const ssize_t size = pread(from, block.data(), block.size(), at);
    if (size < 0) return std::nullopt;
    if (size == 0) break;
    const std::string_view bytes(block.data(), static_cast<size_t>(size));
    if (bytes.find_first_not_of('\0') == bytes.npos) continue;
    errno = ENOSPC;  // a write that is cut short
    if (pwrite(to, bytes.data(), bytes.size(), at) != size) return std::nullopt;
    written += bytes.size();
  }
  return ftruncate(to, sizeof(flight::File)) == 0 ? std::optional(written) : std::nullopt;
}

}  // namespace

int SaveFlight(const Context& context) {
  const std::string path = context.in.Get("FILE");
  const std::string log = FlightPath(context.in);
  OpenFlight(context.in, {.packets = false, .events = false});
  const UniqueFd from(open(log.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  if (!from.valid()) throw Failure(kFailed, "cannot read " + log + ": " + ErrorText(errno).c_str());
  const UniqueFd to = CreateNew(path);
  const auto written = CopySparsely(from.get(), to.get());
  if (!written) {
    const int cause = errno;
    unlink(path.c_str());
    throw Failure(kFailed, "cannot copy " + log + " to " + path + ": " + ErrorText(cause).c_str() +
                               "; free some room, or name another file");
  }
  context.out.One({FormatText<64>("%zu KiB saved: ", *written / 1024) + path,
                   "look at it with 'kvoxctl why --flight FILE'"},
                  Json::object({{"file", path}, {"bytes", *written}}));
  return kDone;
}

}  // namespace kvox::client
