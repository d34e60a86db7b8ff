#include "client/lookup.h"
#include "client/verbs/records.h"
#include "client/verbs/verb.h"

namespace kvox::client {
namespace {

constexpr int kLargestCore = 255;

std::vector<int> CoresOf(const Context& context) {
  std::vector<int> cores;
  for (const std::string& word : context.in.All("CORE")) {
    cores.push_back(Number("CORE", word, 0, kLargestCore));
  }
  if (cores.empty()) cores.assign(std::begin(kCores), std::end(kCores));
  return cores;
}

int List(const Context& context) {
  Told<TapPoint> all;
  std::string silent;
  for (const int core : CoresOf(context)) {
    auto told = AskTaps(context.daemon, core);
    if (!CoreAnswered(told.lines)) silent += " " + std::to_string(core);
    all.items.insert(all.items.end(), told.items.begin(), told.items.end());
    all.lines.insert(all.lines.end(), told.lines.begin(), told.lines.end());
    all.unread += told.unread;
  }
  context.out.List(all.lines, "taps", RecordsOf(all.items), all.unread);
  if (silent.empty()) return kDone;
  context.out.Message("core" + silent +
                      ": no list came; see in the daemon's log whether the co-processor answers, "
                      "and that it has that core");
  return kRefused;
}

}  // namespace

std::vector<Verb> TapVerbs() {
  return {
      {"tap",
       "list",
       "List the tap points, and which buffers they are bound to",
       {{"CORE", Kind::kCore, "Core of the co-processor; 2, 3 and 4 when not given",
         Arity::kAnyNumber}},
       {},
       "tap list 2",
       List},
  };
}

}  // namespace kvox::client
