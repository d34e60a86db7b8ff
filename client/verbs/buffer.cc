#include "client/command_line/verb.h"
#include "client/model/snapshot.h"
#include "client/verbs/records.h"

namespace kvox::client {
namespace {

int List(const Context& context) {
  const std::string& wanted = context.in.Get("DIRECTION");
  Told<Buffer> all;
  const auto add = [&](const char* name, Direction direction) {
    if (!wanted.empty() && wanted != name) return;
    auto told = AskBuffers(context.daemon, direction);
    all.items.insert(all.items.end(), told.items.begin(), told.items.end());
    all.lines.insert(all.lines.end(), told.lines.begin(), told.lines.end());
    all.unread += told.unread;
  };
  add("tap-out", Direction::kTapOut);
  add("inject", Direction::kInject);
  context.out.List(all.lines, "buffers", RecordsOf(all.items), all.unread);
  return kDone;
}

}  // namespace

std::vector<Verb> BufferVerbs() {
  return {
      {"buffer",
       "list",
       "List the buffers, and which processors they serve",
       {{"DIRECTION",
         Kind::kChoice,
         "tap-out or inject; both when not given",
         Arity::kOptional,
         {"tap-out", "inject"}}},
       {},
       "buffer list tap-out",
       List},
  };
}

}  // namespace kvox::client
