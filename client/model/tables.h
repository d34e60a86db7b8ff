// The texts in which the daemon answers, read into values. Pure; any thread.
#pragma once

#include <aidl/kvox/IKvox.h>

#include <optional>
#include <string>
#include <vector>

#include "client/model/objects.h"

namespace kvox::client {

/// The lines of a CommandResult; each may be several.
using Lines = std::vector<std::string>;

/// A table's rows in its order, and how many more could not be read: those with unprintable names,
/// and those that the daemon has cut.
template <typename T>
struct Rows {
  std::vector<T> items;
  int unread = 0;
  std::vector<T> cut = {};  // of the unread: buffers of which only id and name are to be trusted
};

/// ListProcessors.
Rows<Processor> ReadProcessors(const Lines& lines);

/// TapList or TapInfo, asked for `core`.
Rows<TapPoint> ReadTaps(int core, const Lines& lines);

/// False when TapList says that it got no answer from the core.
bool CoreAnswered(const Lines& lines);

/// ListTapOutBuffers or ListInjectBuffers.
Rows<Buffer> ReadBuffers(Direction direction, const Lines& lines);

/// ShowGraph.
Rows<Path> ReadGraph(const Lines& lines);

/// The words behind the colon of ListSupportedProcessors, ListSupportedUseCases, ListParameters.
std::vector<std::string> ReadNames(const Lines& lines);

/// What GetParameterBulk answered for SettingsPairs(); none when it is not that.
std::optional<Settings> ReadSettings(const std::vector<aidl::kvox::IKvox::ParamValue>& values);

/// What to ask GetParameterBulk for.
std::vector<aidl::kvox::IKvox::ParamIdElementPair> SettingsPairs();

/// Why the daemon refused, in one line: what follows the line that repeats the request.
std::string CauseOf(const aidl::kvox::IKvox::CommandResult& result);

/// The lines, each on its own.
std::vector<std::string> SplitLines(const Lines& lines);

}  // namespace kvox::client
