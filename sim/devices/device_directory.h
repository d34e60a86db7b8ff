// The nodes by which a daemon finds the simulated co-processor. One thread.
#pragma once

#include <filesystem>
#include <memory>
#include <set>
#include <string>
#include <vector>

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
  /// Takes a directory for this simulator alone, and clears away what a simulator that died in it
  /// left behind. Null with the reason in `error` when it is not there or has a simulator already.
  static std::unique_ptr<DeviceDirectory> Claim(const std::filesystem::path& directory,
                                                std::string& error);
  /// Removes the nodes, the last one first, and gives the directory free.
  ~DeviceDirectory();
  DeviceDirectory(const DeviceDirectory&) = delete;
  DeviceDirectory& operator=(const DeviceDirectory&) = delete;

  /// Creates a node. One of the same kind that stands there already is a left-over and is replaced;
  /// anything else is not touched: false, and `error` names the path.
  bool Create(const DeviceNode& node, std::string& error);
  void Remove(const std::string& name);

  std::filesystem::path PathOf(const std::string& name) const { return directory_ / name; }

 private:
  DeviceDirectory(std::filesystem::path directory, int lock);
  bool Note(const DeviceNode& node);
  bool RemoveLeftOver(const DeviceNode& node) const;

  const std::filesystem::path directory_;
  const int lock_;                 // descriptor of the lock file, which lists the nodes
  std::set<std::string> noted_;    // lines of the lock file
  std::vector<DeviceNode> nodes_;  // in the order of their creation
};

}  // namespace kvox::sim
