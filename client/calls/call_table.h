// `kvoxctl call`: every method of the interface by its name, one row each.
#pragma once

#include <aidl/kvox/IKvox.h>

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "client/errors.h"

namespace kvox::client {

using aidl::kvox::IKvox;

/// What a method answered, beside its binder status.
struct Answer {
  IKvox::CommandResult result;
  std::optional<IKvox::ParamValue> param;
  std::optional<std::vector<IKvox::ParamValue>> values;
  std::optional<IKvox::ProcessorStats> stats;

  /// What is left to do once the answer is printed; false when the daemon went meanwhile.
  std::function<bool()> afterwards;
};

/// A call whose arguments have been checked, ready to be made.
using PreparedCall = std::function<ndk::ScopedAStatus(IKvox&, Answer&)>;

/// Reads the arguments of `method`. Throws UsageError.
PreparedCall PrepareCall(const std::string& method, const std::vector<std::string>& words);

/// "ConnectTap CORE TAP INDEX TAPOUT INJECT", for every method in the interface's order.
std::vector<std::string> DescribeMethods();

}  // namespace kvox::client
