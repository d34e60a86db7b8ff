// The parameters of processors, and their measurements.

#include <fmt/format.h>

#include <algorithm>
#include <numeric>
#include <optional>

#include "client/calls/method_outputs.h"
#include "client/flight/log_file.h"
#include "client/verbs/shared.h"
#include "kvox/common/command_tables.h"
#include "kvox/common/fixed_text.h"
#include "kvox/common/near_matches.h"
#include "libkvox/calls/arguments.h"
#include "libkvox/units.h"

namespace kvox::client {
namespace {

using CommandResult = IKvox::CommandResult;
using ParameterId = IKvox::ParameterId;
using ParamValue = IKvox::ParamValue;

/// One element of a parameter, and what its value means.
struct Element {
  ParameterId id;
  int32_t element;
  const char* meaning;
};

constexpr Element kElements[] = {
    {ParameterId::VERSION, 0, ""},
    {ParameterId::PASSTHROUGH_MODE, 0, "0 or 1"},
    {ParameterId::TEST_MODE, 0, "0 or 1"},
    {ParameterId::BLOCK_LENGTH, 0, kBlockLengthRange},
    {ParameterId::AUDIO_FORMAT, 0, "code of the sample rate; read-only"},
    {ParameterId::AUDIO_FORMAT, 1, "code of the sample size; read-only"},
    {ParameterId::AUDIO_FORMAT, 2, "0 integer, 1 float, 2 mu-law; read-only"},
    {ParameterId::AUDIO_FORMAT, 3, "channels; read-only"},
    {ParameterId::AUDIO_FORMAT, 4, "1 when interleaved; read-only"},
    {ParameterId::AUDIO_FORMAT, 5, "1 when big-endian; read-only"},
    {ParameterId::AUDIO_FORMAT, 6, "samples of a channel in a run; read-only"},
    {ParameterId::JITTER_BUFFER, 0, kJitterBufferRange},
};

const char* MeaningOf(ParameterId id, int32_t element) {
  for (const Element& row : kElements) {
    if (row.id == id && row.element == element) return row.meaning;
  }
  return "";
}

/// By name, in any case and with '-' for '_', or by number.
ParameterId ReadParameter(const std::string& word) {
  std::string name = Uppercase(word);
  std::replace(name.begin(), name.end(), '-', '_');
  if (const auto id = ParseParameterId(name)) return *id;
  if (const auto id = ParseParameterId(word)) return *id;
  std::vector<std::string> names;
  for (const ParameterId id : ndk::enum_range<ParameterId>()) names.push_back(toString(id));
  throw Failure(kNoObject, NotFound("parameter", word, names, "'kvoxctl param list' shows all"));
}

/// "960", "0.5", or with its kind as in call: "i:960", "f:0.5".
ParamValue ReadValue(const std::string& word) {
  if (const auto number = ParseInt(word)) return ParamValue::make<ParamValue::i>(*number);
  if (const auto flag = ParseBool(word)) return ParamValue::make<ParamValue::i>(*flag ? 1 : 0);
  if (const auto value = ParseParamValue(word)) return *value;
  if (const auto value = ParseFloat(word); value && word.find('.') != word.npos) {
    return ParamValue::make<ParamValue::f>(*value);
  }
  if (word.find_first_not_of("-0123456789") == word.npos) {
    ParseNumber("VALUE", word, INT32_MIN, INT32_MAX);  // which names the range
  }
  throw UsageError("VALUE: '" + ValidUtf8(word) +
                   "' is not a number, true, false, or i:, f:, v: "
                   "and numbers");
}

int List(const Context& context) {
  return PrintNames(context, "parameters", "name", QueryParameters(context.daemon));
}

/// The elements to show; all where none is named.
std::vector<Element> Wanted(const Input& in) {
  if (!in.Has("PARAMETER")) return {std::begin(kElements), std::end(kElements)};
  const ParameterId id = ReadParameter(in.Get("PARAMETER"));
  std::vector<Element> wanted;
  std::copy_if(std::begin(kElements), std::end(kElements), std::back_inserter(wanted),
               [&](const Element& row) { return row.id == id; });
  if (in.Has("ELEMENT") || wanted.empty()) {
    const int32_t element = in.Number("ELEMENT", INT32_MIN, INT32_MAX, 0);
    wanted = {{id, element, MeaningOf(id, element)}};
  }
  return wanted;
}

/// Floats with as many digits as they have.
Json Shown(const ParamValue& value) {
  if (value.getTag() != ParamValue::f) return ToJson(value);
  return Json::parse(fmt::format("{:#}", value.get<ParamValue::f>()));
}

std::string LineOf(const Element& row, const ParamValue& value) {
  std::string name = toString(row.id);
  if (row.id == ParameterId::AUDIO_FORMAT) name += " " + std::to_string(row.element);
  return FormatText<128>("%-18s %-9s %s", name.c_str(), AsColumns({{"", Shown(value)}}).c_str(),
                         row.meaning);
}

int Get(const Context& context) {
  const std::vector<Element> wanted = Wanted(context.in);
  const ProcessorId id = ProcessorOf(context);
  std::vector<std::string> lines;
  Json records = Json::array();
  for (const Element& row : wanted) {
    using Reply = std::pair<CommandResult, ParamValue>;
    const auto [result, value] =
        context.daemon.Get<Reply>("GetParameter", [id = id.id, row](IKvox& kvox, Reply& reply) {
          return kvox.GetParameter(id, row.id, row.element, &reply.second, &reply.first);
        });
    if (result.status != IKvox::CommandStatus::OK) {
      const std::string name = toString(row.id) + " " + std::to_string(row.element);
      return Report(context, name + " of " + id.name, result, Json::object(),
                    "'kvoxctl param get " + id.name + "' shows what there is");
    }
    lines.push_back(LineOf(row, value));
    records.push_back(
        {{"parameter", toString(row.id)}, {"element", row.element}, {"value", Shown(value)}});
  }
  context.out.List(lines, "parameters", records);
  return kDone;
}

int Set(const Context& context) {
  const ParameterId parameter = ReadParameter(context.in.Get("PARAMETER"));
  const ParamValue value = ReadValue(context.in.Get("VALUE"));
  const int32_t element = context.in.Number("--element", INT32_MIN, INT32_MAX, 0);
  const ProcessorId id = ProcessorOf(context);
  auto result =
      context.daemon.Call("SetParameter", &IKvox::SetParameter, id.id, parameter, element, value);
  for (std::string& line : result.lines) {  // which has the processor as a number
    const std::string number = ":" + std::to_string(id.id);
    if (const size_t at = line.find(number); at != line.npos) {
      line.replace(at, number.size(), ":" + id.name);
    }
  }
  const std::string meaning = MeaningOf(parameter, element);
  const int status =
      Report(context, toString(parameter) + " of " + id.name, result,
             {{"id", id.name}, {"parameter", toString(parameter)}},
             meaning.empty() ? "see 'kvoxctl param get " + id.name + "'" : "it is " + meaning);
  return result.status == IKvox::CommandStatus::INVALID_VALUE ? kWrongUsage : status;
}

static_assert(kMaxStatsEntries == 261'120, "as the help says");

/// The processor that was named, or all.
std::vector<ProcessorId> Wanted(const Context& context) {
  if (context.in.Has("PROCESSOR")) return {ProcessorOf(context)};
  std::vector<ProcessorId> ids;
  for (const Processor& processor : QueryProcessors(context.daemon).rows) {
    ids.push_back({CodeOf(processor.id), processor.id});
  }
  return ids;
}

std::string LineOf(const std::string& name, const IKvox::ProcessorStats& stats) {
  const auto ms = [](double value) { return TimeText(value * 1e6); };
  std::string line = FormatText<64>("%-5s %d blocks, one every ", name.c_str(), stats.blockCount) +
                     ms(static_cast<double>(stats.averagePeriod));
  const auto& active = stats.measurements;
  if (active.empty()) return line;
  const auto [least, most] = std::minmax_element(active.begin(), active.end());
  const double mean =
      std::accumulate(active.begin(), active.end(), 0.0) / static_cast<double>(active.size());
  return line + ", busy min/mean/max " + ms(static_cast<double>(*least)) + "/" + ms(mean) + "/" +
         ms(static_cast<double>(*most)) + " in the last " + std::to_string(active.size());
}

/// From the flight log: a line and a record for each stream.
void AddStreams(std::vector<std::string>& lines, Json& records) {
  std::string error;
  const auto path = FindFlight();
  const auto flight =
      path ? flight::ReadFlight(*path, {.packets = false, .events = false}, &error) : std::nullopt;
  if (!flight || !flight->live) return;
  for (const auto& stream : flight->streams) {
    std::string line =
        FormatText<64>("%-9s ", stream.name.c_str()) +
        Counted(stream.dispatched + stream.Lost(), "packet") +
        FormatText<64>(", %llu lost, %llu late", static_cast<unsigned long long>(stream.Lost()),
                       static_cast<unsigned long long>(stream.late));
    Json record = {{"name", stream.name},
                   {"dispatched", stream.dispatched},
                   {"lost", stream.Lost()},
                   {"late", stream.late},
                   {"early", stream.early}};
    const auto add = [&](const char* what, const char* key, const flight::Distribution& values) {
      const auto median = values.Percentile(0.5);
      const auto most = values.Percentile(0.99);
      record[std::string(key) + "_p50_us"] =
          median ? Json(static_cast<double>(*median) / 1e3) : Json();
      record[std::string(key) + "_p99_us"] = most ? Json(static_cast<double>(*most) / 1e3) : Json();
      if (!median) return;
      line += std::string(", ") + what + " p50/p99 " + TimeText(static_cast<double>(*median)) +
              "/" + TimeText(static_cast<double>(*most));
    };
    add("arrival off by", "arrival_error", stream.arrival_error);
    add("processing", "processing", stream.processing);
    add("writing", "writing", stream.writing);
    add("clients", "client", stream.client);
    lines.push_back(line);
    records.push_back(record);
  }
}

/// Calls `measure(id, lines, records)` for each processor, then `extra(lines)`, which returns more
/// fields, and prints what they have added. Returns the exit status.
template <typename Measure, typename Extra>
int ForEach(const Context& context, Measure measure, Extra extra) {
  std::vector<std::string> lines;
  Json records = Json::array();
  int worst = kDone;
  for (const ProcessorId& id : Wanted(context)) {
    const CommandResult result = measure(id, lines, records);
    if (result.status == IKvox::CommandStatus::OK) continue;
    CheckNames(context, result);
    worst = kRefused;
    context.out.Message("statistics of " + id.name + ": the daemon answers " +
                        toString(result.status) + "; try again");
  }
  const Json head = extra(lines);
  context.out.List(lines, "processors", records, 0, head);
  return worst;
}

int Change(const Context& context, std::optional<int32_t> entries, bool reset) {
  return ForEach(
      context,
      [&](const ProcessorId& id, auto&, Json& records) {
        CommandResult result;
        if (entries) {
          result = context.daemon.Call("ProcessorSetStatsMaxBufferEntries",
                                       &IKvox::ProcessorSetStatsMaxBufferEntries, id.id, *entries);
        }
        if (reset && result.status == IKvox::CommandStatus::OK) {
          result = context.daemon.Call("ProcessorResetStats", &IKvox::ProcessorResetStats, id.id);
        }
        records.push_back({{"id", id.name}, {"status", static_cast<int>(result.status)}});
        return result;
      },
      [](auto&) { return Json::object(); });
}

int Show(const Context& context) {
  return ForEach(
      context,
      [&](const ProcessorId& id, auto& lines, Json& records) {
        const auto [result, stats] = QueryStats(context.daemon, id.id);
        if (result.status != IKvox::CommandStatus::OK) return result;
        lines.push_back(LineOf(id.name, stats));
        records.push_back({{"id", id.name},
                           {"blocks", stats.blockCount},
                           {"buffer_entries", stats.bufferEntries},
                           {"average_period_ms", stats.averagePeriod},
                           {"active_ms", stats.measurements}});
        return result;
      },
      [&](auto& lines) {
        Json streams = Json::array();
        if (!context.in.Has("PROCESSOR")) AddStreams(lines, streams);
        return Json::object({{"streams", streams}});
      });
}

int Stats(const Context& context) {
  const bool resize = context.in.Has("--entries");
  const bool reset = context.in.Has("--reset");
  if (!resize) return reset ? Change(context, std::nullopt, true) : Show(context);
  return Change(context, context.in.Number("--entries", 0, static_cast<int>(kMaxStatsEntries)),
                reset);
}

}  // namespace

std::vector<Verb> ParameterVerbs() {
  return {
      {"param list", "List the parameters", List, "param list"},
      {"param get", "Show the values of a processor's parameters", Get,
       "param get pass BLOCK_LENGTH",
       Arguments{
           kProcessor,
           {"PARAMETER", Kind::kParameter, "Name or number; all when not given", Arity::kOptional},
           {"ELEMENT", Kind::kNumber, "Which part of it; all when not given", Arity::kOptional}}},
      {"param set", "Set a parameter of a processor", Set, "param set pass BLOCK_LENGTH 960",
       Arguments{kProcessor,
                 {"PARAMETER", Kind::kParameter, "Name or number"},
                 {"VALUE", Kind::kText, "Number, true or false; or with its kind, as f:0.5"}},
       Options{{"--element", "ELEMENT", Kind::kNumber, "Which part of it (0)"}}},
      {"stats", "Show how long processors work on their blocks", Stats, "stats pass",
       Arguments{{"PROCESSOR", Kind::kProcessor, "Four characters such as art0; all when not given",
                  Arity::kOptional}},
       Options{{"--entries", "COUNT", Kind::kNumber, "Keep so many times from now on, 0 to 261120"},
               {"--reset", nullptr, Kind::kText, "Forget what was measured"}},
       [] {
         return "Reading clears the times: the next reading has what was measured since.\n"
                "Times are kept once --entries has said how many. Without PROCESSOR there is a "
                "line\n"
                "for each stream of the flight log, since kvoxd started: half, and 99 %, of the\n"
                "packets were within the times.\n";
       }},
  };
}

}  // namespace kvox::client
