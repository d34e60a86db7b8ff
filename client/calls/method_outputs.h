// The reply to a call of the interface, and how `kvoxctl call` prints it.
#pragma once

#include <aidl/kvox/IKvox.h>

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "client/output/printer.h"

namespace kvox::client {

using aidl::kvox::IKvox;

/// A method's outputs, except its binder status.
struct MethodOutputs {
  IKvox::CommandResult result;
  std::optional<IKvox::ParamValue> param;
  std::optional<std::vector<IKvox::ParamValue>> values;
  std::optional<IKvox::ProcessorStats> stats;

  /// Run this once the reply is printed; returns false if the daemon went away while it ran.
  std::function<bool()> afterwards;
};

/// A number, or a list of numbers.
Json ToJson(const IKvox::ParamValue& value);

/// One JSON object on one line: status, value, lines, and the method's other outputs.
std::string AsJson(const MethodOutputs& outputs);

}  // namespace kvox::client
