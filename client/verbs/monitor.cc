#include "client/command_line/verb.h"
#include "client/monitor/columns.h"
#include "client/monitor/top.h"
#include "client/monitor/watch.h"

namespace kvox::client {
namespace {

const char* TopNotes() {
  return "Keys: q quits, those of the help line sort (again: the other way round), arrows and\n"
         "page keys move, space looks at once, Ctrl-L draws anew. --json and --short mean "
         "--batch.\n"
         "Times are in ms: PERIOD and ACTIVE are averages since the last look, MAX is the longest\n"
         "time on a block, SHARE is ACTIVE of PERIOD. The daemon tells no single periods: JITTER\n"
         "is how far apart the averages of the last ten looks are. Reading takes the times away\n"
         "from others who read them; processors that keep none are told to keep some meanwhile.\n";
}

const char* WatchNotes() {
  return "The daemon is asked for its tables once an interval, and the co-processor with them;\n"
         "what comes and goes in between is not seen. Ctrl-C ends it with status 0, and so does\n"
         "--timeout, unless --count changes have not come by then.\n";
}

std::vector<const char*> NamesOfColumns() {
  std::vector<const char*> names;
  for (const Column* const column : ColumnsOf(true)) names.push_back(column->name);
  return names;
}

}  // namespace

std::vector<Verb> LiveVerbs() {
  const Option interval = {"--interval", "SECONDS", Kind::kNumber,
                           "Time between two looks, 0.1 to 3600 (1)"};
  return {
      {"",
       "top",
       "Show processors and buffers, again and again",
       {},
       {{"--measure", nullptr, Kind::kText, "Also show times; this clears them in the daemon"},
        {"--sort", "COLUMN", Kind::kChoice, "Sort by a column, such as name, state or share",
         NamesOfColumns()},
        {"--reverse", nullptr, Kind::kText, "Sort the other way round"},
        interval,
        {"--batch", nullptr, Kind::kText, "Print plain rows; needs no terminal"},
        {"-n", "COUNT", Kind::kNumber, "End after so many looks"}},
       "top --batch -n 1 --measure",
       Top,
       TopNotes},
      {"",
       "watch",
       "Print a line for every change of processors, buffers, tap points and daemon",
       {},
       {interval, {"--count", "COUNT", Kind::kNumber, "End after so many changes"}},
       "watch --json --timeout 60",
       Watch,
       WatchNotes},
  };
}

}  // namespace kvox::client
