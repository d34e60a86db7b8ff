// Stands between a node of the co-processor and its counterpart for the daemon, and notes what
// passes. Event loop's thread.
#pragma once

#include <sys/types.h>

#include <filesystem>
#include <functional>
#include <memory>
#include <string>

#include "sim/devices/device_directory.h"
#include "sim/event.h"
#include "sim/recording/recording_file.h"

namespace kvox::sim {

class NodeRelay {
 public:
  /// All of these outlive the relays.
  struct Context {
    event_base* base;
    std::filesystem::path from;  // the co-processor's nodes
    DeviceDirectory& to;         // the daemon's
    RecordingFile& file;
    bool audio;
    /// The co-processor has hung up; the relay may be destroyed, but not in the call.
    std::function<void(const std::string& node)> on_end;
  };

  virtual ~NodeRelay() = default;
  NodeRelay(const NodeRelay&) = delete;
  NodeRelay& operator=(const NodeRelay&) = delete;

  /// The daemon has opened or closed the node, or may have.
  virtual void OnDaemon() {}

 protected:
  NodeRelay(const Context& context, std::string name) : context_(context), name_(std::move(name)) {}

  void Note(NodeEvent event, uint32_t number = 0);
  void NoteError(int error);
  std::filesystem::path FromPath() const { return context_.from / name_; }
  std::filesystem::path ToPath() const { return context_.to.PathOf(name_); }

  const Context& context_;
  const std::string name_;
  int error_ = 0;  // errno of the last failure; 0 once it is over
};

/// Makes the counterpart of a node, and what stands between. Throws std::runtime_error.
std::unique_ptr<NodeRelay> MakeRelay(const NodeRelay::Context& context, const std::string& name);

}  // namespace kvox::sim
