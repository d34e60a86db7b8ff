// Where the sockets of services are.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

struct sockaddr_un;

namespace kvox::binder {

/// A directory that the environment names, without slashes at its end; "" when it names none.
std::string DirectoryVariable(const char* name);

/// Whether a service may have this name.
bool IsServiceName(const std::string& name);

/// The directory for services of this process, whether or not it exists; "" when the environment
/// names none.
std::string RuntimeDirectory();

/// Sets the mode of a directory (S_IFDIR) or socket (S_IFSOCK) that was just created, whatever the
/// umask. Through a descriptor, so that nothing that has replaced it gets the mode. Returns 0 or
/// errno.
int SetMode(const std::string& path, mode_t type, mode_t mode);

/// Creates that directory if it is missing. Returns 0, or errno with `error` set.
int PrepareRuntimeDirectory(std::string* directory, std::string* error);

/// Where clients look for services, in this order.
std::vector<std::string> LookupDirectories();

/// Paths of a service's socket and lock: each '/' of the name becomes ':', which no name has.
std::string SocketPath(const std::string& directory, const std::string& name);
std::string LockPath(const std::string& directory, const std::string& name);

/// False, with `error` set, when the path is too long for a socket.
bool MakeAddress(const std::string& path, sockaddr_un* address, std::string* error);

}  // namespace kvox::binder
