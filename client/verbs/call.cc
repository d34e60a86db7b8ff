#include "client/calls/call_table.h"

#include "client/command_line/verb.h"
#include "client/completion/completion.h"
#include "client/completion/fish.h"
#include "client/completion/zsh.h"

namespace kvox::client {
namespace {

int RunCall(const Context& context) {
  const std::vector<std::string>& words = context.in.All("METHOD");
  if (words.empty()) throw UsageError("METHOD is missing; 'kvoxctl call --help' lists them");
  const std::string& method = words.front();
  const auto call = PrepareCall(method, {words.begin() + 1, words.end()});
  const auto outputs = context.daemon.Get<MethodOutputs>(method.c_str(), call);
  if (context.out.json()) {
    PrintUnchanged(AsJson(outputs));
  } else {
    // Debug has no tables, but names files of any length: newlines in them could look like rows.
    PrintItems(outputs.result.lines, method != "Debug");
  }
  if (outputs.afterwards && !outputs.afterwards()) throw Failure(kNoDaemon, "kvoxd has gone");
  return outputs.result.status == IKvox::CommandStatus::OK ? kDone : kRefused;
}

/// Every failure to reach the daemon is kNoDaemon here.
int Call(const Context& context) {
  try {
    return RunCall(context);
  } catch (const Failure& failure) {
    if (failure.status() != kNotAllowed) throw;
    throw Failure(kNoDaemon, failure.what());
  }
}

const char* CallNotes() {
  static const std::string text = [] {
    std::string list = "Methods and their arguments:\n";
    for (const std::string& method : DescribeMethods()) list += "  " + method + "\n";
    return list +
           "PROCESSOR, TYPE and TAP are four characters (art0) or a number. Negative numbers need "
           "no '--'.\nOptions of kvoxctl go before 'call'.\n";
  }();
  return text.c_str();
}

int Completion(const Context& context) {
  if (context.out.format() != Format::kText) {
    throw UsageError("completion: a script has no other form; leave out --json and --short");
  }
  const std::string& shell = context.in.Get("SHELL");
  PrintOut(shell == "zsh" ? kZshCompletion : shell == "fish" ? kFishCompletion : BashCompletion());
  return kDone;
}

const char* CompletionNotes() {
  return "In a shell, or in its start-up file for new ones:\n"
         "  source <(kvoxctl completion bash)    # ~/.bashrc\n"
         "  source <(kvoxctl completion zsh)     # ~/.zshrc, after compinit\n"
         "  kvoxctl completion fish | source     # ~/.config/fish/config.fish\n"
         "Names of objects are those that the daemon has at that moment.\n";
}

}  // namespace

std::vector<Verb> CallVerbs() {
  return {
      {"call", "Call one method of the interface", Call, "call Connect pass 0 0",
       Arguments{{"METHOD", Kind::kMethod, "The method, then its arguments", Arity::kAnyNumber}},
       Options{}, CallNotes, VerbKind::kRawCall},
      {"completion", "Print a script that lets a shell complete the words of kvoxctl", Completion,
       "completion bash",
       Arguments{{"SHELL",
                  Kind::kChoice,
                  "bash, zsh or fish (bash)",
                  Arity::kOptional,
                  {"bash", "zsh", "fish"}}},
       Options{}, CompletionNotes, VerbKind::kLocal},
  };
}

}  // namespace kvox::client
