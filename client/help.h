// Help, made of the table of verbs. Pure.
#pragma once

#include <string>

#include "client/verbs/verb.h"

namespace kvox::client {

/// "processor new PROCESSOR [TYPE] [--option VALUE]"
std::string UsageOf(const Verb& verb);

/// All of `kvoxctl NOUN VERB --help`.
std::string HelpOf(const Verb& verb);

/// `kvoxctl NOUN --help`.
std::string HelpOf(const Noun& noun);

/// `kvoxctl --help`.
std::string Help();

}  // namespace kvox::client
