// The simulator as a whole: one event loop on the calling thread that serves the control device,
// paces the streams, takes what comes back, makes faults and obeys commands.
#pragma once

#include <event2/event.h>

#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "sim/coprocessor/co_processor.h"
#include "sim/coprocessor/control_point.h"
#include "sim/ctl_server.h"
#include "sim/devices/control_exchange.h"
#include "sim/devices/device_directory.h"
#include "sim/devices/device_set.h"
#include "sim/event.h"
#include "sim/faults/fault_plan.h"
#include "sim/faults/fault_runner.h"
#include "sim/journal.h"
#include "sim/stats.h"

namespace kvox::sim {

struct RunOptions {
  StreamOptions stream;
  std::vector<FaultSpec> faults;  // that nobody has to command
  double seconds = 0;             // 0: until a signal
  bool print = false;             // tell on standard output what happens
  std::filesystem::path stats;    // file for the counters; empty: none
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
  Simulator(const RunOptions& options, std::unique_ptr<CoProcessor> co_processor);
  bool CreateDevices(std::string& error);
  Stats Count();
  bool Report(bool table);

  using Words = std::vector<std::string>;
  struct CommandRow {
    const char* name;
    CtlAnswer (Simulator::*handle)(const Words&);
  };
  static const CommandRow kCommands[];
  CtlAnswer Command(const Words& words);
  CtlAnswer TellStatus(const Words& words);
  CtlAnswer AddFault(const Words& words);
  CtlAnswer ClearFaults(const Words& words);
  CtlAnswer RestoreNodes(const Words& words);
  CtlAnswer End(const Words& words);

  const RunOptions options_;
  const std::unique_ptr<CoProcessor> co_processor_;
  const uint64_t start_ns_;
  Journal journal_;
  const std::unique_ptr<event_base, FreeBase> base_;
  ControlPoint control_;
  FaultPlan plan_;
  ControlExchange exchange_;
  std::unique_ptr<DeviceDirectory> directory_;
  std::unique_ptr<CtlServer> ctl_;
  std::unique_ptr<DeviceSet> devices_;
  std::unique_ptr<FaultRunner> faults_;
  FaultTargets targets_;
  std::vector<std::unique_ptr<Event>> events_;  // signals and the end of the time
};

/// Writes the counters, so that no reader ever sees half of them. False with the reason in `error`.
bool WriteStatsFile(const std::filesystem::path& file, const Stats& stats, std::string& error);

}  // namespace kvox::sim
