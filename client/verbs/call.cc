#include <cstdio>

#include "client/calls/answer_text.h"
#include "client/calls/call_table.h"
#include "client/command_line/verb.h"
#include "client/output/standard_streams.h"

namespace kvox::client {
namespace {

int RunCall(const Context& context) {
  const std::vector<std::string>& words = context.in.All("METHOD");
  if (words.empty()) {
    throw UsageError("METHOD is missing; 'kvoxctl call --help' lists them");
  }
  const std::string& method = words.front();
  const auto call = PrepareCall(method, std::vector<std::string>(words.begin() + 1, words.end()));
  Answer answer;
  context.daemon.Run(method.c_str(), [&](IKvox& kvox) { return call(kvox, answer); });
  PrintOut(context.out.json() ? AsJson(answer) : AsLines(answer));
  if (answer.afterwards && !answer.afterwards()) throw Failure(kNoDaemon, "kvoxd has gone");
  return answer.result.status == IKvox::CommandStatus::OK ? kDone : kRefused;
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

const char* MethodList() {
  static const std::string text = [] {
    std::string list = "Methods and their arguments:\n";
    for (const std::string& method : DescribeMethods()) list += "  " + method + "\n";
    return list +
           "PROCESSOR, TYPE and TAP are four characters (art0) or a number. Negative numbers need "
           "no '--'.\nOptions of kvoxctl go before 'call'.\n";
  }();
  return text.c_str();
}

}  // namespace

std::vector<Verb> CallVerbs() {
  return {
      {"",
       "call",
       "Call one method of the interface",
       {{"METHOD", Kind::kMethod, "The method, and behind it its arguments", Arity::kAnyNumber}},
       {},
       "call Connect pass 0 0",
       Call,
       MethodList,
       Manner::kRaw},
  };
}

}  // namespace kvox::client
