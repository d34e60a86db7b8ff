// Commands that read and set the numbered parameters of processors.

#include <vector>

#include "kvox/common/log.h"
#include "service/kvox_service.h"

namespace kvox {
namespace {

using Value = IKvox::ParamValue;
using Pair = IKvox::ParamIdElementPair;

constexpr size_t kMaxPairs = 64;

/// " processor:1634890864 param:BLOCK_LENGTH element:0"
std::string Describe(int32_t processor, IKvox::ParameterId parameter, int32_t element) {
  return " processor:" + std::to_string(processor) + " param:" + toString(parameter) +
         " element:" + std::to_string(element);
}

std::string DescribeBulk(const char* command, int32_t processor, const std::vector<Pair>& pairs) {
  return std::string(command) + " processor:" + std::to_string(processor) + " [" +
         std::to_string(pairs.size()) + " parameters]";
}

/// Answers whether there are, and then says so.
bool TooManyPairs(const char* command, const std::vector<Pair>& pairs, CommandResult* result) {
  if (pairs.size() <= kMaxPairs) return false;
  LogError("%s too many parameters", command);
  result->status = CommandStatus::ERROR;
  return true;
}

}  // namespace

KvoxService::Status KvoxService::SetParameter(int32_t id, IKvox::ParameterId parameter,
                                              int32_t element, const Value& value,
                                              CommandResult* result) {
  std::string text = "SetParameter" + Describe(id, parameter, element);
  LogInfo("%s", text.c_str());
  const Value::Tag tag = value.getTag();
  if (tag == Value::i) {
    text += " value.i:" + std::to_string(value.get<Value::i>());
  } else if (tag == Value::f) {
    text += " value.f:" + std::to_string(value.get<Value::f>());
  }
  if (tag != Value::i && tag != Value::f) {
    text += " value has invalid tag";
    result->status = CommandStatus::INVALID_VALUE;
  } else if (const auto processor = FindProcessor(static_cast<FourCc>(id))) {
    result->status = CommandStatus(processor->SetParameter(parameter, element, value));
  } else {
    result->status = CommandStatus::INVALID_PROCESSOR;
  }
  print_command_status("SetParameter", text, result);
  return Status::ok();
}

// Answers by the status alone: clients rely on getting no lines.
KvoxService::Status KvoxService::GetParameter(int32_t id, IKvox::ParameterId parameter,
                                              int32_t element, Value* value,
                                              CommandResult* result) {
  const std::string text = "GetParameter" + Describe(id, parameter, element);
  LogInfo("%s", text.c_str());
  const auto processor = FindProcessor(static_cast<FourCc>(id));
  if (!processor) {
    result->status = CommandStatus::INVALID_PROCESSOR;
    return Status::ok();
  }
  result->status = CommandStatus(processor->GetParameter(parameter, element, value));
  if (result->status != CommandStatus::OK) return Status::ok();
  if (value->getTag() == Value::i) {
    LogInfo("%s: %s", text.c_str(), std::to_string(value->get<Value::i>()).c_str());
  } else if (value->getTag() == Value::f) {
    LogInfo("%s: %s", text.c_str(), std::to_string(value->get<Value::f>()).c_str());
  } else {
    LogError("%s: value has invalid tag", text.c_str());
    result->status = CommandStatus::INVALID_VALUE;
  }
  return Status::ok();
}

// Sets nothing: clients set parameters one at a time, and this only checks how many they name.
KvoxService::Status KvoxService::SetParameterBulk(int32_t id, const std::vector<Pair>& pairs,
                                                  const std::vector<Value>&,
                                                  CommandResult* result) {
  const std::string text = DescribeBulk("SetParameterBulk", id, pairs);
  LogInfo("%s", text.c_str());
  if (!TooManyPairs("SetParameterBulk", pairs, result)) {
    print_command_status("SetParameterBulk", text, result);
  }
  return Status::ok();
}

KvoxService::Status KvoxService::GetParameterBulk(int32_t id, const std::vector<Pair>& pairs,
                                                  CommandResult* result,
                                                  std::vector<Value>* values) {
  BeginCommand(DescribeBulk("GetParameterBulk", id, pairs), result);
  if (TooManyPairs("GetParameterBulk", pairs, result)) return Status::ok();
  for (const Pair& pair : pairs) {
    Value value;
    const auto processor = FindProcessor(static_cast<FourCc>(id));
    const auto status = processor
                            ? CommandStatus(processor->GetParameter(pair.id, pair.element, &value))
                            : CommandStatus::INVALID_PROCESSOR;
    if (status == CommandStatus::OK) {
      values->push_back(std::move(value));
      continue;
    }
    const std::string text = "Error getParameter" + Describe(id, pair.id, pair.element);
    LogError("%s", text.c_str());
    PushLine(text, result);
    result->status = status;
    values->clear();
    break;
  }
  return Status::ok();
}

KvoxService::Status KvoxService::ListParameters(CommandResult* result) {
  std::string text = "Supported Kvox parameters: ";
  for (const auto parameter : ndk::enum_range<IKvox::ParameterId>()) {
    text += toString(parameter) + " ";
  }
  print_command_status("ListParameters", text, result);
  return Status::ok();
}

}  // namespace kvox
