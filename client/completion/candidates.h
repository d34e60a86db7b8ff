// What may follow at a place of the command line, according to the table of verbs.
#pragma once

#include <string>
#include <vector>

#include "client/command_line/verb.h"

namespace kvox::client {

struct Candidates {
  std::vector<std::string> words = {};
  Kind kind = Kind::kText;  // names of this kind as well
  std::string before = {};  // "--color=" where a value follows its option in one word
  std::string typed = {};   // what the names and words must start with
};

/// `words` are those after the program's name; the last is the one to complete, "" when nothing of
/// it has been typed.
Candidates CandidatesFor(const std::vector<std::string>& words);

}  // namespace kvox::client
