// The kinds of clients.
#pragma once

#include <filesystem>
#include <memory>

#include "tests/campaign/crew.h"
#include "tests/campaign/sim_control.h"

namespace kvox::campaign {

/// How a stream is changed.
enum class Manner {
  kRough,    // in the midst of its audio
  kOrderly,  // after it was switched off and its last packet is back: no packet may get lost
};

/// Changes the graph around one stream: ties, unties, switches, remakes.
std::unique_ptr<Worker> MakeChanger(Shared& shared, const Stream& stream, Manner manner,
                                    const SimControl& sim);

/// Switches the use case MIC_IN on and off.
std::unique_ptr<Worker> MakeUseCaseSwitcher(Shared& shared, Manner manner, const SimControl& sim);

/// Looks at everything that can be looked at and changes nothing.
std::unique_ptr<Worker> MakeWatcher(Shared& shared);

/// Captures a stream's buffers into files in `directory`, checks each and removes it.
std::unique_ptr<Worker> MakeCapturer(Shared& shared, const Stream& stream,
                                     const std::filesystem::path& directory);

}  // namespace kvox::campaign
