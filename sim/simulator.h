// The simulator as a whole: one event loop on the calling thread that serves the control device,
// paces the streams and takes what comes back.
#pragma once

#include <event2/event.h>

#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "sim/co_processor.h"
#include "sim/control_channel.h"
#include "sim/control_point.h"
#include "sim/data_devices.h"
#include "sim/device_directory.h"
#include "sim/event.h"
#include "sim/journal.h"
#include "sim/stats.h"

namespace kvox::sim {

struct RunOptions {
  double speed = 1;
  double seconds = 0;           // 0: until a signal
  bool print = false;           // tell on standard output what happens
  std::filesystem::path stats;  // file for the counters; empty: none
  std::filesystem::path device_directory;
};

class Simulator {
 public:
  /// Creates the devices. Null with the reason in `error` when that fails; nothing is left then.
  static std::unique_ptr<Simulator> Create(const RunOptions& options,
                                           std::unique_ptr<CoProcessor> co_processor,
                                           std::string& error);

  /// Runs until SIGINT, SIGTERM, SIGHUP or the time is over, then removes the devices and reports.
  /// SIGUSR1 makes it report in between. False when the counters could not be written; the reason
  /// was told on standard error.
  bool Run();

 private:
  struct FreeBase {
    void operator()(event_base* base) const { event_base_free(base); }
  };
  struct Inject {
    std::unique_ptr<InjectDevice> device;
    uint64_t unbound = 0;
  };

  Simulator(const RunOptions& options, std::unique_ptr<CoProcessor> co_processor);
  bool CreateDevices(std::string& error);
  void Rewire();
  void Receive(Inject& inject, const KvoxPacketHeader& header, std::span<const std::byte> payload);
  Stats Count();
  bool Report(bool table);

  const RunOptions options_;
  const std::unique_ptr<CoProcessor> co_processor_;
  const uint64_t start_ns_;
  Journal journal_;
  const std::unique_ptr<event_base, FreeBase> base_;
  ControlPoint control_;
  std::unique_ptr<DeviceDirectory> directory_;
  std::unique_ptr<ControlChannel> channel_;
  std::vector<std::unique_ptr<TapOutDevice>> tapouts_;
  std::vector<std::unique_ptr<Inject>> injects_;
  std::vector<std::unique_ptr<Event>> events_;  // signals and the end of the time
};

/// Writes the counters, so that no reader ever sees half of them. False with the reason in `error`.
bool WriteStatsFile(const std::filesystem::path& file, const Stats& stats, std::string& error);

}  // namespace kvox::sim
