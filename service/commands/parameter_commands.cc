// Commands that read and set the numbered parameters of processors.

#include <vector>

#include "kvox/common/log.h"
#include "service/kvox_service.h"

namespace kvox {
namespace {

using ParameterId = IKvox::ParameterId;
using Value = IKvox::ParamValue;
using Pair = IKvox::ParamIdElementPair;

constexpr size_t kMaxPairs = 64;

/// " processor:1634890864 param:BLOCK_LENGTH element:0"
std::string Describe(int32_t processor, ParameterId parameter, int32_t element) {
  return " processor:" + std::to_string(processor) + " param:" + toString(parameter) +
         " element:" + std::to_string(element);
}

std::string DescribeBulk(const char* command, int32_t processor, const std::vector<Pair>& pairs) {
  return std::string(command) + " processor:" + std::to_string(processor) + " [" +
         std::to_string(pairs.size()) + " parameters]";
}

/// Logs and reports it when there are too many.
bool TooManyPairs(const char* command, const std::vector<Pair>& pairs, Report& report) {
  if (pairs.size() <= kMaxPairs) return false;
  LogError("%s too many parameters", command);
  report.status = StatusCode::kError;
  return true;
}

StatusCode Code(int32_t parameter_status) {
  return StatusCode{static_cast<int8_t>(parameter_status)};
}

}  // namespace

KvoxService::Status KvoxService::SetParameter(int32_t id, ParameterId parameter, int32_t element,
                                              const Value& value, CommandResult* result) {
  return RunChange(result, [&](Report& report) {
    std::string text = "SetParameter" + Describe(id, parameter, element);
    LogInfo("%s", text.c_str());
    const ProcessorPtr processor = inventory_.FindProcessor(static_cast<FourCc>(id));
    const auto forward = [&](ParameterId setting, uint32_t frames) {
      const BufferPtr input = wiring_.EndpointsOf(*processor).input;
      const auto tap = input ? saved_.TapBoundTo(*input) : std::nullopt;
      if (!tap) return true;
      Report exchange;
      if (setting == ParameterId::BLOCK_LENGTH) {
        taps_.SetBlockLength(tap->Arguments(), frames, exchange);
      } else {
        taps_.SetJitterBuffer(tap->Arguments(), frames, exchange);
      }
      return exchange.ok();
    };
    const Value::Tag tag = value.getTag();
    if (tag == Value::i) {
      text += " value.i:" + std::to_string(value.get<Value::i>());
    } else if (tag == Value::f) {
      text += " value.f:" + std::to_string(value.get<Value::f>());
    }
    if (tag != Value::i && tag != Value::f) {
      text += " value has invalid tag";
      report.status = StatusCode::kInvalidValue;
    } else if (!processor) {
      report.status = StatusCode::kInvalidProcessor;
    } else {
      report.status = Code(processor->SetParameter(parameter, element, value, forward));
    }
    report.End("SetParameter", text);
  });
}

// Reports only a status: clients rely on getting no lines.
KvoxService::Status KvoxService::GetParameter(int32_t id, ParameterId parameter, int32_t element,
                                              Value* value, CommandResult* result) {
  return Run(result, [&](Report& report) {
    const std::string text = "GetParameter" + Describe(id, parameter, element);
    LogInfo("%s", text.c_str());
    const ProcessorPtr processor = inventory_.FindProcessor(static_cast<FourCc>(id));
    report.status = processor ? Code(processor->GetParameter(parameter, element, value))
                              : StatusCode::kInvalidProcessor;
    if (!report.ok()) return;
    if (value->getTag() == Value::i) {
      LogInfo("%s: %s", text.c_str(), std::to_string(value->get<Value::i>()).c_str());
    } else if (value->getTag() == Value::f) {
      LogInfo("%s: %s", text.c_str(), std::to_string(value->get<Value::f>()).c_str());
    } else {
      LogError("%s: value has invalid tag", text.c_str());
      report.status = StatusCode::kInvalidValue;
    }
  });
}

// Sets nothing: clients set parameters one at a time; this only checks their number.
KvoxService::Status KvoxService::SetParameterBulk(int32_t id, const std::vector<Pair>& pairs,
                                                  const std::vector<Value>&,
                                                  CommandResult* result) {
  return RunChange(result, [&](Report& report) {
    const std::string text = DescribeBulk("SetParameterBulk", id, pairs);
    LogInfo("%s", text.c_str());
    if (!TooManyPairs("SetParameterBulk", pairs, report)) report.End("SetParameterBulk", text);
  });
}

KvoxService::Status KvoxService::GetParameterBulk(int32_t id, const std::vector<Pair>& pairs,
                                                  CommandResult* result,
                                                  std::vector<Value>* values) {
  return Run(result, [&](Report& report) {
    report.Begin(DescribeBulk("GetParameterBulk", id, pairs));
    if (TooManyPairs("GetParameterBulk", pairs, report)) return;
    for (const Pair& pair : pairs) {
      Value value;
      const ProcessorPtr processor = inventory_.FindProcessor(static_cast<FourCc>(id));
      const StatusCode status = processor
                                    ? Code(processor->GetParameter(pair.id, pair.element, &value))
                                    : StatusCode::kInvalidProcessor;
      if (status == StatusCode::kOk) {
        values->push_back(std::move(value));
        continue;
      }
      const std::string text = "Error getParameter" + Describe(id, pair.id, pair.element);
      LogError("%s", text.c_str());
      report.Push(text);
      report.status = status;
      values->clear();
      return;
    }
  });
}

KvoxService::Status KvoxService::ListParameters(CommandResult* result) {
  return Run(result, [](Report& report) {
    std::string text = "Supported Kvox parameters: ";
    for (const auto parameter : ndk::enum_range<ParameterId>()) text += toString(parameter) + " ";
    report.End("ListParameters", text);
  });
}

}  // namespace kvox
