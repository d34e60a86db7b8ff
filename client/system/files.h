// Files named on the command line. Only regular ones are accepted: reading others might not end,
// and opening some would block.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "kvox/common/unique_fd.h"

namespace kvox::client {

/// All bytes of the file at `path`. Throws UsageError, also when it has more than `limit` bytes.
std::vector<uint8_t> ReadFile(const std::string& path, size_t limit);

/// The same for standard input.
std::vector<uint8_t> ReadStandardInput(size_t limit);

/// Opens the file at `path` for appending, creating it if necessary. Throws UsageError.
UniqueFd OpenToAppend(const std::string& path);

/// Opens the file at `path`, emptied, creating it if necessary. Throws UsageError.
UniqueFd OpenToReplace(const std::string& path);

/// Creates the file at `path`, for this user alone. Throws UsageError, also when it exists.
UniqueFd CreateNew(const std::string& path);

/// Throws UsageError when no file can be written at `path`. Changes nothing, and leaves no new file
/// behind.
void CheckWritable(const std::string& path);

/// Whether writing to one path would overwrite the other, which may not exist yet.
bool AreSameFile(const std::string& path, const std::string& other);

/// False, with errno set, when not everything could be written.
bool WriteAll(int fd, const void* bytes, size_t size);

}  // namespace kvox::client
