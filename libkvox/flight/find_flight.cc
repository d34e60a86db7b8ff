#include "libkvox/flight/find_flight.h"

#include <fcntl.h>
#include <sys/stat.h>

#include "kvox/flight/reader.h"
#include "platform/platform.h"

namespace kvox::client {
namespace {

bool Exists(const std::string& path) {
  struct stat status;
  return stat(path.c_str(), &status) == 0;
}

}  // namespace

std::optional<std::string> FindFlight() {
  std::optional<std::string> found;
  for (const std::string& directory : FlightDirectories()) {
    const std::string path = directory + "/" + flight::kFileName;
    if (!Exists(path)) continue;
    if (flight::IsWritten(path)) return path;
    if (!found) found = path;
  }
  return found;
}

UniqueFd OpenFlight() {
  const auto path = FindFlight();
  return UniqueFd(path ? open(path->c_str(), O_RDONLY | O_CLOEXEC) : -1);
}

}  // namespace kvox::client
