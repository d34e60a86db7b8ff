// `kvoxctl call`: every method of the interface by its name, one row each.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "client/calls/method_outputs.h"

namespace kvox::client {

/// A call whose arguments have been checked, ready to be made.
using PreparedCall = std::function<ndk::ScopedAStatus(IKvox&, MethodOutputs&)>;

/// Parses the arguments of `method`. Throws UsageError.
PreparedCall PrepareCall(const std::string& method, const std::vector<std::string>& words);

/// "ConnectTap CORE TAP INDEX TAPOUT INJECT", for every method in the interface's order.
std::vector<std::string> DescribeMethods();

}  // namespace kvox::client
