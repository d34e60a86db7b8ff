// The simulator: an event loop on the calling thread that serves the control device, paces the
// streams, receives returning audio, injects faults and executes commands.
#pragma once

#include <event2/event.h>

#include <cstdint>
#include <filesystem>
#include <list>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "sim/coprocessor/co_processor.h"
#include "sim/coprocessor/command_handler.h"
#include "sim/ctl.h"
#include "sim/devices/device_directory.h"
#include "sim/devices/device_set.h"
#include "sim/event.h"
#include "sim/faults/fault_plan.h"
#include "sim/faults/fault_runner.h"
#include "sim/output.h"
#include "sim/stats.h"

namespace kvox::sim {

struct RunOptions {
  StreamOptions stream;
  double seconds = 0;           // 0: until a signal
  bool print = false;           // print what happens on standard output
  std::filesystem::path stats;  // file for the counters; empty: none
  std::filesystem::path device_directory;
};

class Simulator {
 public:
  /// Creates the devices. Throws std::invalid_argument when a file of the scenario or the one for
  /// the counters cannot be used, std::runtime_error when the devices cannot be created. Nothing is
  /// left then.
  Simulator(const RunOptions& options, const Scenario& scenario);

  /// Runs until SIGINT, SIGTERM, SIGHUP or the time is over, then removes the devices and reports.
  /// SIGUSR1 makes it report in between. False when the counters could not be written; the reason
  /// is on standard error.
  bool Run();

 private:
  using Words = std::vector<std::string>;

  void CreateDevices();
  Stats Count();
  bool Report(bool table);
  CtlReply Command(const Words& words);
  CtlReply AddFault(const Words& words);

  const RunOptions options_;
  const uint64_t start_ns_;
  Journal journal_;
  CoProcessor co_processor_;
  const EventBase base_;
  CommandHandler commands_;
  FaultPlan plan_;
  std::optional<DeviceDirectory> directory_;
  std::optional<CtlServer> ctl_;
  std::optional<DeviceSet> devices_;
  std::optional<FaultRunner> faults_;
  std::list<Event> events_;  // signals and the end of the time
};

}  // namespace kvox::sim
