#include "client/verbs/records.h"
#include "client/verbs/report.h"
#include "client/verbs/words.h"

namespace kvox::client {
namespace {

int List(const Context& context) {
  const auto told = AskProcessors(context.daemon);
  context.out.List(told.lines, "processors", RecordsOf(told.items), told.unread);
  return kDone;
}

int Types(const Context& context) {
  const auto told = AskTypes(context.daemon);
  context.out.List(told.lines, "types", RecordsOf("type", told.items));
  return kDone;
}

int New(const Context& context) {
  const ProcessorId id = NewProcessorId("ID", context.in.Get("ID"));
  const std::string& type_word = context.in.Get("TYPE");
  const ProcessorId type =
      LookUpType(context.daemon, type_word.empty() ? context.in.Get("ID") : type_word);
  const auto result =
      context.daemon.Call("NewProcessorWithType", &IKvox::NewProcessorWithType, id.id, type.id);
  return Report(context, "processor " + id.name, result, {{"id", id.name}, {"type", type.name}});
}

int Delete(const Context& context) {
  const ProcessorId id = LookUpProcessor(context.daemon, context.in.Get("PROCESSOR"));
  const auto result = context.daemon.Call("DeleteProcessor", &IKvox::DeleteProcessor, id.id);
  return Report(context, "processor " + id.name, result, {{"id", id.name}});
}

int Info(const Context& context) {
  const ProcessorId id = LookUpProcessor(context.daemon, context.in.Get("PROCESSOR"));
  const auto result = context.daemon.Call("ProcessorInfo", &IKvox::ProcessorInfo, id.id);
  Fields record;
  if (context.out.format() != Format::kText) {
    const auto told = AskProcessors(context.daemon);
    if (const Processor* const found = FindProcessor(told.items, id.name)) {
      Processor processor = *found;
      processor.settings = AskSettings(context.daemon, processor.id);
      record = FieldsOf(processor);
    }
  }
  return Report(context, "processor " + id.name, result, record);
}

int Switch(const Context& context, bool on) {
  const ProcessorId id = LookUpProcessor(context.daemon, context.in.Get("PROCESSOR"));
  const auto result = context.daemon.Call("ProcessorEnable", &IKvox::ProcessorEnable, id.id, on);
  return Report(context, "processor " + id.name, result, {{"id", id.name}});
}

int Status(const Context& context) {
  const ProcessorId id = LookUpProcessor(context.daemon, context.in.Get("PROCESSOR"));
  const auto result = context.daemon.Call("ProcessorIsEnabled", &IKvox::ProcessorIsEnabled, id.id);
  return Report(context, "processor " + id.name, result,
                {{"id", id.name}, {"enabled", result.value != 0}});
}

}  // namespace

std::vector<Verb> ProcessorVerbs() {
  return {
      {"processor", "list", "List the processors", {}, {}, "processor list", List},
      {"processor",
       "types",
       "List the types that processors can have",
       {},
       {},
       "processor types",
       Types},
      {"processor",
       "new",
       "Make a processor, disabled and unconnected; one of the same name is replaced",
       {{"ID", Kind::kText, "Four printable characters, or their number"},
        {"TYPE", Kind::kProcessorType, "Its type; the id when not given", Arity::kOptional}},
       {},
       "processor new art0 arel",
       New},
      {"processor",
       "delete",
       "Delete a processor",
       {ProcessorArgument()},
       {},
       "processor delete pass",
       Delete},
      {"processor",
       "info",
       "Tell what a processor is and holds",
       {ProcessorArgument()},
       {},
       "--json processor info pass",
       Info},
      {"processor",
       "enable",
       "Let a processor work",
       {ProcessorArgument()},
       {},
       "processor enable pass",
       [](const Context& context) { return Switch(context, true); }},
      {"processor",
       "disable",
       "Stop a processor's work",
       {ProcessorArgument()},
       {},
       "processor disable pass",
       [](const Context& context) { return Switch(context, false); }},
      {"processor",
       "status",
       "Tell whether a processor is enabled",
       {ProcessorArgument()},
       {},
       "processor status pass",
       Status},
  };
}

}  // namespace kvox::client
