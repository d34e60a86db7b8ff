// Commands that list, create, delete, describe and switch processors.

#include <utility>

#include "kvox/common/command_tables.h"
#include "kvox/common/fixed_text.h"
#include "kvox/common/four_cc.h"
#include "processors/audio_relay_processor.h"
#include "processors/passthru_processor.h"
#include "processors/phone_booth_processor.h"
#include "service/kvox_service.h"
#include "service/processor_kinds.h"

namespace kvox {
namespace {

template <typename Kind>
ProcessorPtr Make(FourCc id, ProcessorHost&) {
  return std::make_shared<Kind>(id, Kind::kType);
}

template <>
ProcessorPtr Make<AudioRelayProcessor>(FourCc id, ProcessorHost& host) {
  return AudioRelayProcessor::Create(id, host);
}

/// Null for an unknown type.
ProcessorPtr MakeProcessor(FourCc id, FourCc type, ProcessorHost& host) {
  for (const ProcessorKind& kind : ProcessorKinds()) {
    if (kind.type == type) return kind.make(id, host);
  }
  return nullptr;
}

std::string NameOr(const BufferPtr& buffer, const char* none) {
  return buffer ? buffer->name() : none;
}

constexpr char kNotFound[] = "Kvox processor not found";

}  // namespace

std::vector<ProcessorKind>& ProcessorKinds() {
  static std::vector<ProcessorKind> kinds = {
      {PassthruProcessor::kType, Make<PassthruProcessor>},
      {AudioRelayProcessor::kType, Make<AudioRelayProcessor>},
      {PhoneBoothProcessor::kType, Make<PhoneBoothProcessor>},
  };
  return kinds;
}

KvoxService::Status KvoxService::ListSupportedProcessors(CommandResult* result) {
  return Run(result, [](Report& report) {
    std::string text = "Supported Kvox processors: ";
    for (const ProcessorKind& kind : ProcessorKinds()) text += ToString(kind.type) + " ";
    report.End("ListSupportedProcessors", text);
  });
}

KvoxService::Status KvoxService::ListProcessors(CommandResult* result) {
  return Run(result, [this](Report& report) {
    std::string text = kProcessorTableTitle;
    const auto processors = inventory_.Processors();
    text += processors.empty() ? kNoProcessorsInTable : kProcessorTableHeader;
    for (const ProcessorPtr& processor : processors) {
      const Wiring::Endpoints ends = wiring_.EndpointsOf(*processor);
      text += FormatText<128>(kProcessorTableRow, processor->id_text(), processor->type_text(),
                              NameOr(ends.input, kNoneInTable).c_str(),
                              NameOr(ends.output, kNoneInTable).c_str(),
                              processor->IsEnabled() ? 1u : 0u);
    }
    report.End("ListProcessors", text);
  });
}

KvoxService::Status KvoxService::NewProcessor(int32_t id, CommandResult* result) {
  return NewProcessorWithType(id, id, result);
}

KvoxService::Status KvoxService::NewProcessorWithType(int32_t id_number, int32_t type_number,
                                                      CommandResult* result) {
  return RunChange(result, [&](Report& report) {
    const auto id = static_cast<FourCc>(id_number);
    const auto type = static_cast<FourCc>(type_number);
    const std::string name = ToString(id);
    report.Begin(FormatText<64>("Creating new processor '%s' of type '%s'", name.c_str(),
                                ToString(type).c_str()));
    const ProcessorPtr created = MakeProcessor(id, type, *this);
    bool replaced = false;
    const bool stored = wiring_.ReplaceProcessor(id, created, replaced);
    Outcome outcome;
    if (replaced) outcome.text = "Deleting existing processor '" + name + "'\n";
    if (!created) {
      outcome.status = StatusCode::kInvalidProcessor;
    } else if (!stored) {
      outcome.status = StatusCode::kError;
      outcome.text += FormatText<128>(
          "There are %zu Kvox processors already, which is the most; delete one with "
          "DeleteProcessor",
          kMaxProcessors);
    }
    report.End("NewProcessorWithType", outcome);
  });
}

KvoxService::Status KvoxService::DeleteProcessor(int32_t id_number, CommandResult* result) {
  return RunChange(result, [&](Report& report) {
    const auto id = static_cast<FourCc>(id_number);
    const std::string name = ToString(id);
    report.Begin(FormatText<64>("Deleting processor '%s'", name.c_str()));
    bool existed = false;
    wiring_.ReplaceProcessor(id, nullptr, existed);
    report.End("DeleteProcessor", existed ? "" : "Kvox processor '" + name + "' already deleted");
  });
}

KvoxService::Status KvoxService::ProcessorInfo(int32_t id, CommandResult* result) {
  return Run(result, [&](Report& report) {
    const auto code = static_cast<FourCc>(id);
    report.Begin(FormatText<64>("Processor '%s' info\n", ToString(code).c_str()));
    Outcome outcome;
    if (const ProcessorPtr processor = inventory_.FindProcessor(code)) {
      const Wiring::Endpoints ends = wiring_.EndpointsOf(*processor);
      std::vector<std::string> lines;
      processor->Info(NameOr(ends.input, "none"), NameOr(ends.output, "none"), lines);
      for (const std::string& line : lines) outcome.text += line + "\n";
    } else {
      outcome.status = StatusCode::kInvalidProcessor;
    }
    report.End("ProcessorInfo", outcome);
  });
}

KvoxService::Status KvoxService::ProcessorEnable(int32_t id_number, bool enable,
                                                 CommandResult* result) {
  return RunChange(result, [&](Report& report) {
    const auto id = static_cast<FourCc>(id_number);
    report.Begin(
        FormatText<64>("%s processor '%s'", enable ? "Enable" : "Disable", ToString(id).c_str()));
    std::string text;
    if (const auto status = wiring_.EnableProcessor(id, enable)) {
      report.status = *status == 0 ? StatusCode::kOk : StatusCode::kError;
      io_.UpdateWakeLock(&report);
    } else {
      report.status = StatusCode::kInvalidProcessor;
      text = kNotFound;
    }
    report.End("ProcessorEnable", text);
  });
}

KvoxService::Status KvoxService::ProcessorIsEnabled(int32_t id_number, CommandResult* result) {
  return Run(result, [&](Report& report) {
    const auto id = static_cast<FourCc>(id_number);
    std::string text = FormatText<64>("Get processor '%s' enabled state", ToString(id).c_str());
    report.Begin(text);
    report.value = 0;
    if (const ProcessorPtr processor = inventory_.FindProcessor(id)) {
      const bool enabled = processor->IsEnabled();
      text += enabled ? ": 1" : ": 0";
      report.value = enabled ? 1.0f : 0.0f;
    } else {
      text = kNotFound;
      report.status = StatusCode::kInvalidProcessor;
    }
    report.End("ProcessorIsEnabled", text);
  });
}

}  // namespace kvox
