// The graph of a daemon as a picture. Pure.
#pragma once

#include <string>

#include "client/model/snapshot.h"

namespace kvox::client {

/// A digraph in the language of Graphviz, from left to right: tap points that are on or bound, the
/// buffers that something uses, and all processors, with edges the way audio goes. Solid green is
/// on, dashed grey is off, a red border is something that lacks an end; a legend says so.
std::string GraphAsDot(const Snapshot& snapshot);

}  // namespace kvox::client
