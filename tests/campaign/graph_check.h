// Compares the expected graph with the daemon's lists, the co-processor's state and the packets
// that flow.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "tests/campaign/daemon_client.h"
#include "tests/campaign/expected_graph.h"
#include "tests/campaign/sim_control.h"

namespace kvox::campaign {

/// The daemon's tables: a text for each row, by the row's name.
struct GraphTables {
  using Table = std::map<std::string, std::string>;
  Table processors;
  Table tapouts;
  Table injects;
  Table paths;  // by their processor
};

/// What the daemon must list.
GraphTables ExpectedTables(const ExpectedGraph& graph);

/// What it lists.
GraphTables ReadTables(DaemonClient& daemon);

/// The differences, one per line.
std::vector<std::string> Differences(const ExpectedGraph& graph, const GraphTables& listed,
                                     const SimStatus& actual);

/// The differences between what was acknowledged and what flowed between two samples a few packets
/// apart, one per line: tap points that stream though they are off or do not though they are on,
/// audio that came back from what is off, and inject buffers that got other packets than the
/// processors connected to them have read.
std::vector<std::string> FlowDifferences(const ExpectedGraph& graph, const SimStatus& before,
                                         const SimStatus& after);

}  // namespace kvox::campaign
