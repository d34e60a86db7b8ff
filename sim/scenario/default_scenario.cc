#include "sim/scenario/scenario.h"

namespace kvox::sim {

const std::string_view kDefaultScenario =
    R"toml(# A phone: what kvosim simulates unless it is given a scenario of your own.
# Core 2 has the audio front end, core 3 the always-on graph, core 4 the voice call.

cores = [2, 3, 4]

# Numbers of the data devices xdv-kvox_tapoutN and xdv-kvox_injectN.
tapouts = [0, 1, 2, 3, 20, 21, 40, 41]
injects = [0, 1, 2, 3, 20, 21, 40, 41]

[[tap]]                 # microphones
name = "imic"
core = 2
channels = 2
source = { kind = "sine", frequency = 1000, level = -12 }

[[tap]]                 # speaker
name = "sspk"
core = 2
channels = 2
source = { kind = "sweep", from = 100, to = 8000, seconds = 5, level = -18 }

[[tap]]                 # media playback
name = "entr"
index = 5
core = 2
channels = 2
format = "float"
block_length = 4800
source = { kind = "sine", frequency = 440, level = -6 }

[[tap]]                 # echo reference
name = "eref"
core = 2
source = { kind = "sine", frequency = 600, level = -20 }

[[tap]]                 # general purpose, full resolution
name = "genp"
core = 2
channels = 2
bits = 32
source = { kind = "noise", seed = 1, level = -20 }

[[tap]]
name = "genp"
index = 1
core = 2
source = { kind = "silence" }

[[tap]]                 # always-on microphone
name = "amic"
core = 3
source = { kind = "noise", seed = 2, level = -40 }

[[tap]]
name = "adet"
core = 3
block_length = 4800
source = { kind = "sine", frequency = 2000, level = -30 }

[[tap]]                 # voice call, downlink: stereo, each channel in runs of 480 samples
name = "vpdl"
core = 4
channels = 2
noninterleaved = 480
source = { kind = "sine", frequency = 400, level = -12 }

[[tap]]                 # voice call, uplink
name = "vpul"
index = 1
core = 4
noninterleaved = 480
source = { kind = "noise", seed = 3, level = -24 }
)toml";

}  // namespace kvox::sim
