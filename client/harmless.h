// Texts from elsewhere on somebody's terminal.
#pragma once

#include <string>

namespace kvox::client {

/// The text with '?' for every byte of a control character, which might steer the terminal that it
/// is shown on; tabs and ends of lines stay. Pure.
std::string Harmless(std::string text);

}  // namespace kvox::client
