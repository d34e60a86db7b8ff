#include "client/calls/answer.h"

namespace kvox::client {

using Value = IKvox::ParamValue;

Json ToJson(const Value& value) {
  switch (value.getTag()) {
    case Value::i:
      return value.get<Value::i>();
    case Value::f:
      return value.get<Value::f>();
    case Value::v:
      return value.get<Value::v>();
  }
  return nullptr;
}

namespace {

/// {"i": 960}
Json Tagged(const Value& value) {
  constexpr const char* kTags[] = {"i", "f", "v"};
  return Json::object({{kTags[static_cast<size_t>(value.getTag())], ToJson(value)}});
}

}  // namespace

std::string AsLines(const Answer& answer) {
  std::string text;
  for (const std::string& line : answer.result.lines) text += line + "\n";
  return text;
}

std::string AsJson(const Answer& answer) {
  Json json = {{"status", static_cast<int>(answer.result.status)},
               {"value", answer.result.value},
               {"lines", answer.result.lines}};
  if (answer.param) json["param"] = Tagged(*answer.param);
  if (answer.values) {
    json["values"] = Json::array();
    for (const Value& value : *answer.values) json["values"].push_back(Tagged(value));
  }
  if (const auto& stats = answer.stats) {
    json["stats"] = {{"block_count", stats->blockCount},
                     {"buffer_entries", stats->bufferEntries},
                     {"average_period", stats->averagePeriod},
                     {"measurements", stats->measurements}};
  }
  return AsJson(json) + "\n";
}

}  // namespace kvox::client
