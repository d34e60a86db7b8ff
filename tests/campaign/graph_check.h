// Holds the model against what the daemon lists and against what the co-processor was told.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "tests/campaign/caller.h"
#include "tests/campaign/model.h"
#include "tests/campaign/sim_control.h"
#include "tests/campaign/tables.h"

namespace kvox::campaign {

/// The graph as somebody tells it.
struct GraphTables {
  std::map<std::string, ProcessorRow> processors;
  std::map<int, BufferRow> tapouts;
  std::map<int, BufferRow> injects;
  std::map<std::string, std::string> graph;  // the line of each processor
};

/// What the daemon's lists have to show after the model. Pure.
GraphTables ExpectedTables(const Model& model);

/// What the daemon lists.
GraphTables AskTables(Caller& caller);

/// What is not as it should be, a line each; empty when all is. Pure.
std::vector<std::string> Compare(const Model& model, const GraphTables& shown,
                                 const SimStatus& told);

}  // namespace kvox::campaign
