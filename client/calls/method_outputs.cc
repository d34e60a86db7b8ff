#include "client/calls/method_outputs.h"

#include "client/output/json.h"

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

std::string AsJson(const MethodOutputs& outputs) {
  Json json = {{"status", static_cast<int>(outputs.result.status)},
               {"value", outputs.result.value},
               {"lines", outputs.result.lines}};
  if (outputs.param) json["param"] = Tagged(*outputs.param);
  if (outputs.values) {
    json["values"] = Json::array();
    for (const Value& value : *outputs.values) json["values"].push_back(Tagged(value));
  }
  if (const auto& stats = outputs.stats) {
    json["stats"] = {{"block_count", stats->blockCount},
                     {"buffer_entries", stats->bufferEntries},
                     {"average_period", stats->averagePeriod},
                     {"measurements", stats->measurements}};
  }
  return AsJson(json) + "\n";
}

}  // namespace kvox::client
