// Clients of relays: they send back every block that they are handed.
#pragma once

#include <aidl/kvox/BnKvox.h>

#include <atomic>
#include <memory>
#include <vector>

#include "kvox/common/four_cc.h"
#include "tests/campaign/caller.h"

namespace kvox::campaign {

class Echoes {
 public:
  /// Starts the threads that serve this process's callbacks, if there are none yet.
  explicit Echoes(std::shared_ptr<IKvox> kvox);

  /// Blocks may go on coming; they are no longer sent back.
  ~Echoes();
  Echoes(const Echoes&) = delete;
  Echoes& operator=(const Echoes&) = delete;

  /// Registers a client with a relay. Throws std::runtime_error when the daemon refuses.
  void Register(FourCc relay);

  /// Blocks that came, and those of them that the daemon would not take back.
  uint64_t blocks() const { return blocks_; }
  uint64_t refused() const { return refused_; }

 private:
  class Client;

  const std::shared_ptr<IKvox> kvox_;
  std::atomic<uint64_t> blocks_ = 0;
  std::atomic<uint64_t> refused_ = 0;
  std::vector<std::shared_ptr<Client>> clients_;
};

}  // namespace kvox::campaign
