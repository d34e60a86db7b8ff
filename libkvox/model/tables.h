// The daemon's text replies, parsed into values. Any thread.
#pragma once

#include <aidl/kvox/IKvox.h>

#include <optional>
#include <string>
#include <vector>

#include "libkvox/model/objects.h"

namespace kvox::client {

/// The lines of a CommandResult; each may hold several.
using Lines = std::vector<std::string>;

/// A reply that is a table, or several of one kind.
template <typename T>
struct TableReply {
  std::vector<T> rows;  // in the daemon's order
  int unparsed = 0;     // rows with unprintable names, and those that the daemon truncated
  std::vector<T> truncated = {};  // of the unparsed: buffers of which only id and name are valid
  Lines lines = {};               // all of the text

  void Append(TableReply more) {
    rows.insert(rows.end(), more.rows.begin(), more.rows.end());
    unparsed += more.unparsed;
    truncated.insert(truncated.end(), more.truncated.begin(), more.truncated.end());
    lines.insert(lines.end(), more.lines.begin(), more.lines.end());
  }
};

/// ListProcessors.
TableReply<Processor> ParseProcessors(Lines lines);

/// TapList or TapInfo of `core`.
TableReply<TapPoint> ParseTaps(int core, Lines lines);

/// False when TapList says that it got no reply from the core.
bool CoreReplied(const Lines& lines);

/// ListTapOutBuffers or ListInjectBuffers.
TableReply<Buffer> ParseBuffers(Direction direction, Lines lines);

/// ShowGraph.
TableReply<Path> ParseGraph(Lines lines);

/// The words after the colon of ListSupportedProcessors, ListSupportedUseCases, ListParameters.
TableReply<std::string> ParseNames(Lines lines);

/// The values of GetParameterBulk for SettingsPairs(); none when it returned something else.
std::optional<Settings> ParseSettings(const std::vector<aidl::kvox::IKvox::ParamValue>& values);

/// The inputs of GetParameterBulk that ParseSettings() needs.
std::vector<aidl::kvox::IKvox::ParamIdElementPair> SettingsPairs();

/// Why the daemon refused, in one line: what follows the line that repeats the request.
std::string CauseOf(const aidl::kvox::IKvox::CommandResult& result);

/// The lines, each on its own.
std::vector<std::string> SplitLines(const Lines& lines);

}  // namespace kvox::client
