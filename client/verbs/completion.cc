#include "client/completion/completion.h"
#include "client/command_line/verb.h"
#include "client/output/standard_streams.h"

namespace kvox::client {
namespace {

int Completion(const Context& context) {
  if (context.out.format() != Format::kText) {
    throw UsageError("completion: a script has no other form; leave out --json and --short");
  }
  PrintOut(BashCompletion());
  return kDone;
}

const char* Notes() {
  return "In a shell, or in ~/.bashrc for those to come:\n"
         "  source <(kvoxctl completion bash)\n"
         "Names of objects are those that the daemon has just then.\n";
}

}  // namespace

std::vector<Verb> CompletionVerbs() {
  return {
      {"",
       "completion",
       "Print a script that lets a shell complete the words of kvoxctl",
       {{"SHELL", Kind::kChoice, "bash", Arity::kOnce, {"bash"}}},
       {},
       "completion bash",
       Completion,
       Notes,
       Manner::kAlone},
  };
}

}  // namespace kvox::client
