// Everything that a daemon tells of itself.
#pragma once

#include <string>
#include <vector>

#include "client/calls/daemon.h"
#include "client/model/objects.h"
#include "client/model/tables.h"
#include "kvox/common/command_tables.h"

namespace kvox::client {

/// What one method told, and what it said.
template <typename T>
struct Told {
  std::vector<T> items;
  int unread = 0;  // rows that could not be read
  Lines lines;
  std::vector<T> cut = {};  // of the unread, as in Rows
};

/// These ask the daemon for one of its tables. They throw Failure when it refuses or is gone.
Told<Processor> AskProcessors(Daemon& daemon);
Told<TapPoint> AskTaps(Daemon& daemon, int core);
Told<Buffer> AskBuffers(Daemon& daemon, Direction direction);
Told<Path> AskGraph(Daemon& daemon);
Told<std::string> AskTypes(Daemon& daemon);
Told<std::string> AskUseCases(Daemon& daemon);
Told<std::string> AskParameters(Daemon& daemon);
std::optional<Settings> AskSettings(Daemon& daemon, const std::string& processor);
std::optional<bool> AskUseCase(Daemon& daemon, const std::string& name);

/// The code of a name as the daemon shows it, without the blanks at its end.
int32_t CodeOf(const std::string& name);

/// "cores 2, 3 and 4"
std::string NamesOfCores(const std::vector<int>& cores);

/// That `cores` do not answer, and what to do then: a message or the end of one.
std::string SilenceOf(const std::vector<int>& cores);

/// How many rows of one of kvoxctl's lists could not be read.
struct UnreadRows {
  std::string list;  // the verb that shows it: "tap list 2"
  int count;
};

struct Snapshot {
  std::vector<std::string> types;
  std::vector<Processor> processors;
  std::vector<TapPoint> taps;     // of kGraphCores
  std::vector<int> silent_cores;  // that did not answer
  std::vector<Buffer> tapouts;
  std::vector<Buffer> injects;
  std::vector<UseCase> use_cases;
  std::vector<UnreadRows> unread_rows = {};  // of tables that have some

  int unread() const;
};

/// A fresh picture. Nothing is changed in the daemon: the measurements of processors, which reading
/// would clear, are no part of it. Processors that go meanwhile have no settings.
Snapshot ReadSnapshot(Daemon& daemon);

/// Whether it tells enough to change something by it: all rows could be read, and some core
/// answered. A co-processor may lack a core, but not all of them.
bool CanBeTrusted(const Snapshot& snapshot);

/// What the snapshot lacks, and what to do about it: a message or the end of one. "" when it is
/// whole.
std::string GapsOf(const Snapshot& snapshot);

/// The processor, tap point or buffer of that name in a list; nullptr when there is none.
const Processor* FindProcessor(const std::vector<Processor>& processors, const std::string& id);
const Buffer* FindBuffer(const std::vector<Buffer>& buffers, const std::string& name);

}  // namespace kvox::client
