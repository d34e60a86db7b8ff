// Completion of kvosim's words by a shell.
#pragma once

#include <string>
#include <vector>

namespace kvox::sim {

/// The first is the one when none is named.
inline const std::vector<std::string> kShells = {"bash", "zsh", "fish"};

/// The script for one of them. It never runs kvosim: it knows the options of this version.
std::string CompletionScript(const std::string& shell);

}  // namespace kvox::sim
