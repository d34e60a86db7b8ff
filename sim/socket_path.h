// Local sockets under paths of any length, though an address holds 107 characters only.
#pragma once

#include <filesystem>

namespace kvox::sim {

/// As bind() and connect(): 0, or -1 with errno.
int BindSocket(int socket, const std::filesystem::path& path);
int ConnectSocket(int socket, const std::filesystem::path& path);

}  // namespace kvox::sim
