// The graph of a daemon for Graphviz.
#pragma once

#include <string>

#include "libkvox/model/snapshot.h"

namespace kvox::client {

/// A digraph in Graphviz's language, from left to right: tap points that are on or bound, buffers
/// that are in use, and all processors, with edges in the direction of the audio. Solid green is
/// on, dashed gray is off, a red border marks something that lacks an end; a legend says so.
std::string GraphAsDot(const Snapshot& snapshot);

}  // namespace kvox::client
