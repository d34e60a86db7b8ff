// The nodes by which a daemon finds the simulated co-processor. One thread.
#pragma once

#include <sys/un.h>

#include <filesystem>
#include <set>
#include <string>
#include <vector>

#include "kvox/common/unique_fd.h"

namespace kvox::sim {

struct DeviceNode {
  enum class Kind { kEmptyFile, kSymbolicLink, kFifo, kSocket, kDirectory };
  Kind kind;
  std::string name;         // in the directory
  std::string target = {};  // of a symbolic link
  int socket = -1;          // of a socket: a local one, bound to the node for its owner alone
};

class DeviceDirectory {
 public:
  /// Reserves a directory for this simulator, and removes what a killed simulator left in it.
  /// Throws std::runtime_error when it cannot be used or another simulator runs in it.
  explicit DeviceDirectory(std::filesystem::path directory);
  /// Removes the nodes, the last one first, and releases the directory.
  ~DeviceDirectory();
  DeviceDirectory(const DeviceDirectory&) = delete;
  DeviceDirectory& operator=(const DeviceDirectory&) = delete;

  /// Creates a node, in place of a left-over of the same kind. Throws std::runtime_error; anything
  /// else under that name is not touched.
  void Create(const DeviceNode& node);
  /// Does nothing when there is no such node.
  void Remove(const std::string& name);

  std::filesystem::path PathOf(const std::string& name) const { return directory_ / name; }

 private:
  bool Note(const DeviceNode& node);
  bool RemoveLeftOver(const DeviceNode& node) const;

  const std::filesystem::path directory_;
  const UniqueFd lock_;            // of the lock file, which lists the nodes
  std::set<std::string> noted_;    // lines of the lock file
  std::vector<DeviceNode> nodes_;  // in the order of their creation
};

/// The address of a local socket in a directory that is open as `directory`. An address holds 107
/// characters only; this way the directory's path may have any length.
sockaddr_un SocketAddress(const UniqueFd& directory, const std::string& name);

}  // namespace kvox::sim
