// Help, made of the table of verbs. Pure.
#pragma once

#include <string>

#include "client/command_line/verb.h"
#include "kvox/common/help_text.h"

namespace kvox::client {

/// An argument or option as usage shows it: "[TYPE]", "--seconds SECONDS".
std::string Shown(const Argument& argument);
std::string Shown(const Option& option);

/// The variables of the environment that kvoxctl reads.
std::vector<HelpRow> Variables();

/// "processor new PROCESSOR [TYPE] [--option VALUE]"
std::string UsageOf(const Verb& verb);

/// All of `kvoxctl NOUN VERB --help`.
std::string HelpOf(const Verb& verb);

/// `kvoxctl NOUN --help`.
std::string HelpOf(const Noun& noun);

/// `kvoxctl --help`.
std::string Help();

}  // namespace kvox::client
