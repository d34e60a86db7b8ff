// Queries of a daemon's state.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "kvox/common/command_tables.h"
#include "libkvox/calls/daemon.h"
#include "libkvox/model/objects.h"
#include "libkvox/model/tables.h"

namespace kvox::client {

// These query the daemon. They throw Failure when it refuses or is gone.

TableReply<Processor> QueryProcessors(Daemon& daemon);
TableReply<Buffer> QueryBuffers(Daemon& daemon, Direction direction);
TableReply<Buffer> QueryBuffers(Daemon& daemon);  // tap-out buffers first
TableReply<std::string> QueryTypes(Daemon& daemon);
TableReply<std::string> QueryUseCases(Daemon& daemon);
TableReply<std::string> QueryParameters(Daemon& daemon);
std::optional<Settings> QuerySettings(Daemon& daemon, const std::string& processor);
/// Of the processor with this id. Reading clears the measurements.
std::pair<IKvox::CommandResult, IKvox::ProcessorStats> QueryStats(Daemon& daemon, int32_t id);
/// None for one that does not report its state; it is not asked then, which the daemon would log as
/// an error.
std::optional<bool> QueryUseCase(Daemon& daemon, const std::string& name,
                                 const std::vector<Processor>& processors);

/// The cores that have tap points.
inline const std::vector<int> kAllCores(std::begin(kGraphCores), std::end(kGraphCores));

/// Cores without a list of tap points.
struct MissingCores {
  std::vector<int> silent = {};  // did not reply
  std::vector<int> absent = {};  // the co-processor has no such cores
};

/// The graph; where the daemon refuses it because the co-processor lacks cores, put together from
/// the lists, in the same form. Adds these cores to `absent`.
TableReply<Path> QueryGraph(Daemon& daemon, std::vector<int>& absent);

/// Adds to `missing` the cores that have no list.
TableReply<TapPoint> QueryTaps(Daemon& daemon, const std::vector<int>& cores,
                               MissingCores& missing);

/// The same, with every core that has no list taken for a silent one until AddHealth() is called.
TableReply<TapPoint> ListTaps(Daemon& daemon, const std::vector<int>& cores, MissingCores& missing);

/// Adds what no list shows, in at most one call: which buffers gave up, and which of the silent
/// cores are absent. False where the daemon is too old to report that.
bool AddHealth(Daemon& daemon, std::vector<Buffer>& buffers, MissingCores& missing);

/// The code of a name that is padded with blanks.
int32_t CodeOf(const std::string& name);

/// "cores 2, 3 and 4"
std::string NamesOfCores(const std::vector<int>& cores);

/// A message, or the end of one: that `cores` do not reply, and what to do.
std::string SilenceOf(const std::vector<int>& cores);

/// A message: that the co-processor has no such `cores`.
std::string AbsenceOf(const std::vector<int>& cores);

/// How many rows of one of kvoxctl's lists could not be parsed.
struct UnparsedRows {
  std::string list;  // the verb that shows it: "tap list 2"
  int count;
};

struct Snapshot {
  std::vector<std::string> types;
  std::vector<std::string> parameters;
  std::vector<Processor> processors;
  std::vector<TapPoint> taps;  // of kAllCores
  MissingCores missing_cores;
  std::vector<Buffer> tapouts;
  std::vector<Buffer> injects;
  std::vector<UseCase> use_cases;
  std::vector<UnparsedRows> unparsed = {};  // of tables that have some

  int unparsed_rows() const;
};

/// Takes a snapshot without changing anything in the daemon: it lacks the measurements of
/// processors, which reading clears. Processors deleted while it is taken have no settings.
Snapshot ReadSnapshot(Daemon& daemon);

/// Whether it is complete enough to act upon: all rows were parsed, and some core replied. A
/// co-processor may lack a core, but not all of them.
bool CanBeTrusted(const Snapshot& snapshot);

/// A message, or the end of one: what the snapshot lacks, and what to do about it. "" when it is
/// complete.
std::string GapsOf(const Snapshot& snapshot);

/// The object of that name in a list; nullptr when there is none.
const Processor* FindProcessor(const std::vector<Processor>& processors, const std::string& id);
const Buffer* FindBuffer(const std::vector<Buffer>& buffers, const std::string& name);

}  // namespace kvox::client
