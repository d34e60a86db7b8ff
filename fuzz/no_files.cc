// Replaces kvoxctl's access to files, in a process that must not touch any.

#include "client/system/files.h"

#include <algorithm>

#include "libkvox/errors.h"

namespace kvox::client {

std::vector<uint8_t> ReadFile(const std::string& path, size_t limit) {
  if (path.empty()) throw UsageError("FILE: there is none without a name");
  return std::vector<uint8_t>(std::min(path.size(), limit), uint8_t{7});
}

UniqueFd OpenToAppend(const std::string& path) {
  if (path.empty()) throw UsageError("FILE: there is none without a name");
  return UniqueFd();
}

bool WriteAll(int, const void*, size_t) {
  return true;
}

}  // namespace kvox::client
