// Passes bytes from one descriptor to another, as they come. Event loop's thread; never blocks it.
#pragma once

#include <cstddef>
#include <functional>
#include <span>
#include <vector>

#include "sim/event.h"

namespace kvox::sim {

class Flow {
 public:
  struct Callbacks {
    /// Bytes that have been passed on, or wait for room where they go.
    std::function<void(std::span<const std::byte> bytes)> on_bytes;
    /// The last call: an end of file (0), or errno of a read or write that failed. Does not destroy
    /// this object.
    std::function<void(int error)> on_end;
  };

  /// Both descriptors are non-blocking and outlive it.
  Flow(event_base* base, int from, int to, Callbacks callbacks);

  Flow(const Flow&) = delete;
  Flow& operator=(const Flow&) = delete;

 private:
  void Resume();
  void Pause();
  void Read();
  void Write();
  bool Pass(std::span<const std::byte> bytes);
  void End(int error);

  const int from_;
  const int to_;
  const Callbacks callbacks_;
  std::vector<std::byte> buffer_;
  std::vector<std::byte> rest_;  // while there is one, nothing is read
  bool pollable_ = false;
  Event readable_;
  Event writable_;
  Event again_;
};

}  // namespace kvox::sim
