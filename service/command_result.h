// How a command reports: lines for people, a status, and the same in the log.
#pragma once

#include <aidl/kvox/IKvox.h>

#include <string>

namespace kvox {

using aidl::kvox::IKvox;
using CommandResult = IKvox::CommandResult;
using CommandStatus = IKvox::CommandStatus;

/// Logs the request and makes it the result's first line.
void BeginCommand(const std::string& request, CommandResult* result);

/// Adds a line; bytes that are not valid UTF-8 become '?', because no reply could carry them.
void PushLine(const std::string& line, CommandResult* result);

/// Ends a command: adds the text, if there is any, and for a failure a line of the command's name
/// and the status word. Both are logged, as errors when the command failed.
void print_command_status(const char* name, const std::string& text, CommandResult* result);

}  // namespace kvox
