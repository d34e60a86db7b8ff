// Help, generated from the table of verbs.
#pragma once

#include <string>

#include "client/command_line/verb.h"
#include "kvox/common/help_text.h"

namespace kvox::client {

/// An argument or option as usage shows it: "[TYPE]", "--seconds SECONDS".
std::string Shown(const Argument& argument);
std::string Shown(const Option& option);

/// The environment variables that kvoxctl reads.
std::vector<HelpRow> Variables();

/// "processor new PROCESSOR [TYPE] [--option VALUE]"
std::string UsageOf(const Verb& verb);

/// All of `kvoxctl NOUN VERB --help`, of `kvoxctl NOUN --help` and of `kvoxctl --help`.
std::string HelpOf(const Verb& verb);
std::string HelpOf(const Noun& noun);
std::string Help();

}  // namespace kvox::client
