// The names that the daemon has just now for things of one kind.
#pragma once

#include <string>
#include <vector>

#include "client/daemon.h"
#include "client/verbs/verb.h"

namespace kvox::client {

/// All names of the kind; none for kinds without names. Tap points are "imic.0"; "2:imic.0" where
/// several cores have one of that name, or where `typed` begins with a number. Throws Failure.
std::vector<std::string> AllNames(Kind kind, const std::string& typed, Daemon& daemon);

/// Whether case counts for nothing in names of the kind.
bool IgnoresCase(Kind kind);

}  // namespace kvox::client
