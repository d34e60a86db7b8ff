// The client's part in faults: what it requests, and checks, while nodes are away or replies do not
// come.
#pragma once

#include <string>

#include "tests/campaign/fault_kinds.h"
#include "tests/campaign/testbed.h"

namespace kvox::campaign {

/// One thread. What goes wrong is added to the run's failures. All functions throw SimError when
/// the simulator is gone.
class ClientPart {
 public:
  explicit ClientPart(Testbed& testbed) : testbed_(testbed), client_(testbed.run(), "campaign") {}

  RetryingClient& client() { return client_; }

  /// A node leaves for good. It returns at the end, once all other audio flows.
  void LoseNode(const Injection& fault);
  /// The longest that it took audio to return without a node that had left.
  Ms slowest_without_node() const { return slowest_without_node_; }

  /// Starts, stops and disables streams while all nodes are away.
  void WishWhileAway(const Injection& fault);
  /// A processor or a tap point takes over another one's buffer, then all nodes leave.
  void TakeOverBuffer(const Injection& fault);
  /// Commands that only look something up, while no command gets a reply.
  void LookUpWhileMute(const Injection& fault);
  /// Connections to buffers that do not exist.
  void RequestRefusedConnects(const Injection& fault);
  /// Of the inject buffers that get the same audio, some are stalled.
  void MeasureFanOuts(const Injection& fault);

  /// Ends what the above changed of streams that no other client changes.
  void RestoreStreams();

 private:
  void Start(const Injection& fault);
  void AwaitFirstBuffers();
  void RestoreSpareTap();
  void RestoreStream(const Stream& stream);

  Testbed& testbed_;
  RetryingClient client_;
  Ms slowest_without_node_{};
};

}  // namespace kvox::campaign
