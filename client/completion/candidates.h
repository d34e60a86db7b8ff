// What may stand at a place of the command line, as far as the table of verbs tells. Pure.
#pragma once

#include <string>
#include <vector>

#include "client/command_line/verb.h"

namespace kvox::client {

struct Candidates {
  std::vector<std::string> words = {};
  Kind kind = Kind::kText;  // names of this kind, too
  std::string before = {};  // "--color=" where a value stands in one word with its option
  std::string typed = {};   // what the names and words must begin with
};

/// `words` are those behind the program's name; the last is the one to be completed, "" when there
/// is nothing of it yet.
Candidates CandidatesFor(const std::vector<std::string>& words);

}  // namespace kvox::client
