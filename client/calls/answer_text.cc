#include "client/calls/answer_text.h"

#include <fmt/format.h>

#include <nlohmann/json.hpp>

namespace kvox::client {
namespace {

using Value = IKvox::ParamValue;

// The library quotes texts and prints numbers; the spacing between them is ours, so that a line
// reads as documented.

std::string Quoted(const std::string& text) {
  return nlohmann::json(text).dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

std::string Number(float number) {
  return nlohmann::json(number).dump();
}

template <typename T, typename Format>
std::string List(const std::vector<T>& items, Format format) {
  std::string text;
  for (const T& item : items) {
    if (!text.empty()) text += ", ";
    text += format(item);
  }
  return "[" + text + "]";
}

std::string Param(const Value& value) {
  switch (value.getTag()) {
    case Value::i:
      return fmt::format("{{\"i\": {}}}", value.get<Value::i>());
    case Value::f:
      return fmt::format("{{\"f\": {}}}", Number(value.get<Value::f>()));
    case Value::v:
      return fmt::format("{{\"v\": {}}}", List(value.get<Value::v>(), Number));
  }
  return "{}";
}

}  // namespace

std::string AsLines(const Answer& answer) {
  std::string text;
  for (const std::string& line : answer.result.lines) text += line + "\n";
  return text;
}

std::string AsJson(const Answer& answer) {
  std::string text = fmt::format("{{\"status\": {}, \"value\": {}, \"lines\": {}",
                                 static_cast<int>(answer.result.status),
                                 Number(answer.result.value), List(answer.result.lines, Quoted));
  if (answer.param) text += ", \"param\": " + Param(*answer.param);
  if (answer.values) text += ", \"values\": " + List(*answer.values, Param);
  if (answer.stats) {
    text += fmt::format(
        ", \"stats\": {{\"block_count\": {}, \"buffer_entries\": {}, \"average_period\": {}, "
        "\"measurements\": {}}}",
        answer.stats->blockCount, answer.stats->bufferEntries, Number(answer.stats->averagePeriod),
        List(answer.stats->measurements, Number));
  }
  return text + "}\n";
}

}  // namespace kvox::client
