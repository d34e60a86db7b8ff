// Simulator and daemon with three streams of 20 ms packets: one through a passthrough, one through
// a relay whose client can be made late, one through a processor that can be made to take long.
#pragma once

#include <aidl/kvox/IKvox.h>

#include <atomic>
#include <memory>
#include <string>

#include "kvox/flight/reader.h"
#include "tests/campaign/sim_control.h"
#include "tests/support/process.h"
#include "tests/support/temp_directory.h"

namespace kvox::campaign {

using aidl::kvox::IKvox;

inline constexpr char kPassStream[] = "tapout0";
inline constexpr char kRelayStream[] = "tapout1";
inline constexpr char kBurnStream[] = "tapout2";

/// One thread.
class BlameWorld {
 public:
  /// Starts both programs and all streams. Throws std::runtime_error.
  BlameWorld();
  ~BlameWorld();

  const SimControl& sim() const { return *sim_; }

  // What goes wrong once each.
  void BurnOnce();
  void BeLateOnce() { client_late_->store(true); }
  void Rewire();
  /// Takes the processor from the I/O threads for 30 ms. False when that is not allowed.
  bool Hog();

  /// Throws std::runtime_error when there is none.
  flight::FlightView ReadLog() const;

  /// Switches the streams' tap points off: what has been sent then stays.
  void EndStreams();

 private:
  class Client;

  template <typename Method, typename... Arguments>
  void Do(const char* what, Method method, Arguments... arguments);
  void StartStream(int number, int32_t id, int32_t type);
  void PinIoThreads(int cpu);

  HostDirectories home_;
  std::unique_ptr<Process> simulator_;
  std::unique_ptr<Process> daemon_;
  std::unique_ptr<SimControl> sim_;
  std::shared_ptr<IKvox> kvox_;
  const std::shared_ptr<std::atomic<bool>> client_late_ =
      std::make_shared<std::atomic<bool>>(false);
  std::shared_ptr<Client> client_;
};

}  // namespace kvox::campaign
