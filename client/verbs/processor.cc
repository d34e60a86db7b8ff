#include "client/verbs/shared.h"

namespace kvox::client {
namespace {

int List(const Context& context) {
  return PrintTable(context, "processors", QueryProcessors(context.daemon));
}

int Types(const Context& context) {
  return PrintNames(context, "types", "type", QueryTypes(context.daemon));
}

/// The daemon would replace it, and disconnect what it was connected to.
void RequireAbsent(Daemon& daemon, const std::string& id) {
  const auto processors = QueryProcessors(daemon).rows;
  const Processor* const present = FindProcessor(processors, id);
  if (present == nullptr) return;
  throw Failure(kRefused, "there is a processor " + id + ", of type " + present->type +
                              "; --replace replaces it, and what it is connected to is free then");
}

int New(const Context& context) {
  const std::string& word = context.in.Get("ID");
  const ProcessorId id = NewProcessorId("ID", word);
  // Looked up first: for an unknown type the daemon would only delete the processor that now has
  // this id.
  const ProcessorId type =
      LookUpType(context.daemon, context.in.Has("TYPE") ? context.in.Get("TYPE") : word);
  if (!context.in.Has("--replace")) RequireAbsent(context.daemon, id.name);
  const auto result =
      context.daemon.Call("NewProcessorWithType", &IKvox::NewProcessorWithType, id.id, type.id);
  return Report(context, "processor " + id.name, result, {{"id", id.name}, {"type", type.name}});
}

int Delete(const Context& context) {
  // Looked up first: the daemon reports success even if there is nothing to delete.
  const ProcessorId id = LookUpProcessor(context.daemon, context.in.Get("PROCESSOR"));
  const auto result = context.daemon.Call("DeleteProcessor", &IKvox::DeleteProcessor, id.id);
  return Report(context, "processor " + id.name, result, {{"id", id.name}});
}

int Info(const Context& context) {
  const ProcessorId id = ProcessorOf(context);
  const auto result = context.daemon.Call("ProcessorInfo", &IKvox::ProcessorInfo, id.id);
  Json record = Json::object();
  if (context.out.format() != Format::kText) {
    const auto processors = QueryProcessors(context.daemon).rows;
    if (const Processor* const found = FindProcessor(processors, id.name)) {
      Processor processor = *found;
      processor.settings = QuerySettings(context.daemon, processor.id);
      record = RecordOf(processor);
    }
  }
  return Report(context, "processor " + id.name, result, record);
}

template <bool kOn>
int Switch(const Context& context) {
  const ProcessorId id = ProcessorOf(context);
  const auto result = context.daemon.Call("ProcessorEnable", &IKvox::ProcessorEnable, id.id, kOn);
  return Report(context, "processor " + id.name, result, {{"id", id.name}});
}

int Status(const Context& context) {
  const ProcessorId id = ProcessorOf(context);
  const auto result = context.daemon.Call("ProcessorIsEnabled", &IKvox::ProcessorIsEnabled, id.id);
  return Report(context, "processor " + id.name, result,
                {{"id", id.name}, {"enabled", result.value != 0}});
}

}  // namespace

std::vector<Verb> ProcessorVerbs() {
  return {
      {"processor list", "List the processors", List, "processor list"},
      {"processor types", "List the types that processors can have", Types, "processor types"},
      {"processor new", "Make a processor, disabled and unconnected", New,
       "processor new art0 arel",
       Arguments{
           {"ID", Kind::kText, "Four printable characters, or their number"},
           {"TYPE", Kind::kProcessorType, "Its type; the id when not given", Arity::kOptional}},
       Options{{"--replace", nullptr, Kind::kText, "Replace the one that has this name"}}},
      {"processor delete", "Delete a processor", Delete, "processor delete pass",
       Arguments{kProcessors}},
      {"processor info", "Show a processor's state and settings", Info,
       "--json processor info pass", Arguments{kProcessors}},
      {"processor enable", "Enable a processor", Switch<true>, "processor enable pass",
       Arguments{kProcessors}},
      {"processor disable", "Disable a processor", Switch<false>, "processor disable pass",
       Arguments{kProcessors}},
      {"processor status", "Show whether a processor is enabled", Status, "processor status pass",
       Arguments{kProcessors}},
  };
}

}  // namespace kvox::client
