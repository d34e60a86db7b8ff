// The kinds of clients.
#pragma once

#include <filesystem>
#include <memory>

#include "tests/campaign/sim_control.h"
#include "tests/campaign/worker_pool.h"

namespace kvox::campaign {

/// How streams are changed.
enum class LoadProfile {
  kAggressive,  // in the midst of their audio
  kLossless,    // after they were switched off and the last packet is back
};

/// Changes the graph around one stream.
std::unique_ptr<Worker> MakeGraphMutator(RunContext& run, const Stream& stream, LoadProfile profile,
                                         const SimControl& sim);

/// Switches the use case of a stream on and off.
std::unique_ptr<Worker> MakeUseCaseToggler(RunContext& run, const Stream& stream,
                                           LoadProfile profile, const SimControl& sim);

/// Reads all that can be read and changes nothing.
std::unique_ptr<Worker> MakeObserver(RunContext& run);

/// Captures a stream's buffers into files in `directory`, checks each and removes it.
std::unique_ptr<Worker> MakeCaptureClient(RunContext& run, const Stream& stream,
                                          const std::filesystem::path& directory);

}  // namespace kvox::campaign
