// Clients of relays that send back every block they get.
#pragma once

#include <aidl/kvox/BnKvox.h>

#include <memory>
#include <vector>

#include "kvox/common/four_cc.h"

namespace kvox::campaign {

class LoopbackClients {
 public:
  using IKvox = aidl::kvox::IKvox;

  /// Starts the threads that serve this process's callbacks, if there are none yet.
  explicit LoopbackClients(std::shared_ptr<IKvox> kvox);
  /// Blocks may still come, but are no longer sent back.
  ~LoopbackClients();
  LoopbackClients(const LoopbackClients&) = delete;
  LoopbackClients& operator=(const LoopbackClients&) = delete;

  /// Registers a client with a relay. Throws std::runtime_error when the daemon refuses.
  void Register(FourCc relay);

 private:
  class Client;

  const std::shared_ptr<IKvox> kvox_;
  std::vector<std::shared_ptr<Client>> clients_;
};

}  // namespace kvox::campaign
