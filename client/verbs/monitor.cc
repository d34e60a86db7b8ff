#include "client/monitor/monitor.h"

#include "client/flight/log_file.h"
#include "client/monitor/top_text.h"

namespace kvox::client {
namespace {

const char* TopNotes() {
  return "Keys: q quits, those of the help line sort (again: reverses), arrow and page keys\n"
         "scroll, space refreshes at once, Ctrl-L redraws. --json and --short imply --batch.\n"
         "LOST and LATE are packets since kvoxd started, from the flight log, a processor's those "
         "of\n"
         "its input; red: lost during the last ten refreshes, see kvoxctl why. Of these refreshes\n"
         "JITTER is what 99 % of the arrivals stay within, in ms, and BUSY what the slowest "
         "processor\n"
         "of a packet and its writes took on average, in us. With --measure, in ms: PERIOD and "
         "ACTIVE are averages since the last\n"
         "refresh, MAX is the longest time on a block, SHARE is ACTIVE divided by PERIOD. Reading\n"
         "these clears them for other readers; processors that keep no times keep some while top\n"
         "runs.\n";
}

const char* WatchNotes() {
  return "The daemon and the co-processor are queried once per interval; what comes and goes in\n"
         "between is not seen. Ctrl-C ends it with status 0, and so does --timeout, unless "
         "--count\n"
         "changes have not come by then.\n";
}

std::vector<const char*> ColumnNames() {
  std::vector<const char*> names;
  for (const Column* const column : ColumnsOf(true)) names.push_back(column->name);
  return names;
}

}  // namespace

std::vector<Verb> MonitorVerbs() {
  const Option interval = {"--interval", "SECONDS", Kind::kNumber,
                           "Time between two refreshes, 0.1 to 3600 (1)"};
  return {
      {"top", "Show processors and buffers, refreshed continuously", Top,
       "top --batch -n 1 --measure", Arguments{},
       Options{
           {"--measure", nullptr, Kind::kText, "Also show times; this clears them in the daemon"},
           {"--sort", "COLUMN", Kind::kChoice, "Sort by a column, such as name, state or share",
            ColumnNames()},
           {"--reverse", nullptr, Kind::kText, "Reverse the order"},
           interval,
           {"--batch", nullptr, Kind::kText, "Print plain rows; needs no terminal"},
           {"--count", "COUNT", Kind::kNumber, "End after so many refreshes", {}, "-n"},
           {"--once", nullptr, Kind::kText, "The same as --batch -n 1"},
           kFlightOption},
       TopNotes},
      {"watch", "Print a line for every change of processors, buffers, tap points and daemon",
       Watch, "watch --json --timeout 60", Arguments{},
       Options{interval,
               {"--count", "COUNT", Kind::kNumber, "End after so many changes", {}, "-n"}},
       WatchNotes},
  };
}

}  // namespace kvox::client
