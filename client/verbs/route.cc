// Whole chains of audio in one verb.

#include "libkvox/graph/route.h"
#include "client/verbs/shared.h"
#include "libkvox/graph/change.h"

namespace kvox::client {
namespace {

/// Makes the change, or with --dry-run only shows it.
int Make(const Context& context, const Edit& edit) {
  const bool dry_run = context.in.Has("--dry-run");
  const GraphChange change =
      dry_run ? PlanChange(context.daemon, edit) : MakeChange(context.daemon, edit);
  std::vector<std::string> lines;
  Json records = Json::array();
  for (const Step& step : change.steps) {
    lines.push_back((dry_run ? "to do: " : "done: ") + Describe(step));
    records.push_back({{"step", Describe(step)}, {"done", !dry_run}});
  }
  if (lines.empty()) lines.emplace_back("nothing to do");
  context.out.List(lines, "steps", records);
  return kDone;
}

int AddRoute(const Context& context) {
  const Route route{.source = context.in.Get("SOURCE"),
                    .processor = context.in.Get("PROCESSOR"),
                    .sink = context.in.Get("SINK"),
                    .type = context.in.Get("--type")};
  return Make(context, [&](const Snapshot& snapshot) { return WithRoute(route, snapshot); });
}

int RemoveRoutes(const Context& context) {
  std::vector<std::string> processors;
  if (!context.in.Has("PROCESSOR")) {
    throw UsageError("PROCESSOR is missing; 'kvoxctl unroute --help' shows what it takes");
  }
  for (const std::string& word : context.in.All("PROCESSOR")) {
    processors.push_back(ProcessorNamed(context.daemon, word).name);
  }
  return Make(context,
              [&](const Snapshot& snapshot) { return WithoutProcessors(processors, snapshot); });
}

const char* RouteNotes() {
  return "The processor is made where there is none. A tap point that is bound to no buffer gets "
         "one\n"
         "that nobody uses. Everything is enabled in an order in which nothing plays half-wired. "
         "When\n"
         "a step fails, those before it are undone.\n";
}

const char* UnrouteNotes() {
  return "Deletes the processors. Buffers that no other processor uses are stopped, tap points "
         "unbound\n"
         "from them, and disabled when nothing is left of what they were bound to.\n";
}

}  // namespace

std::vector<Verb> RouteVerbs() {
  const Option dry_run = {"--dry-run", nullptr, Kind::kText, "Only show the steps"};
  return {
      {"route", "Let audio flow from a tap point through a processor to another", AddRoute,
       "route imic.0 pass inject0",
       Arguments{{"SOURCE", Kind::kPoint, "Tap point or tap-out buffer"},
                 {"PROCESSOR", Kind::kProcessor, "Four characters such as pass"},
                 {"SINK", Kind::kPoint, "Tap point or inject buffer; nowhere when not given",
                  Arity::kOptional}},
       Options{{"--type", "TYPE", Kind::kProcessorType, "Type of a new processor (its name)"},
               dry_run},
       RouteNotes},
      {"unroute", "Take down what route has set up", RemoveRoutes, "unroute pass",
       Arguments{{"PROCESSOR", Kind::kProcessor, "Processors to delete", Arity::kMany}},
       Options{dry_run}, UnrouteNotes},
  };
}

}  // namespace kvox::client
