// `kvosim ctl`: sends a command to the simulator that runs in a directory.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

namespace kvox::sim {

/// Prints the reply. Returns the exit status: 0 done, 1 refused (the reason is on standard error),
/// 3 there is no simulator or its reply cannot be used.
int RunCtl(const std::filesystem::path& directory, const std::vector<std::string>& words);

}  // namespace kvox::sim
