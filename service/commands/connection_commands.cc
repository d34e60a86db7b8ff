// Commands that connect tap points, buffers and processors, and show how they are connected.

#include "kvox/common/command_tables.h"
#include "kvox/common/fixed_text.h"
#include "service/kvox_service.h"

namespace kvox {
namespace {

/// The name of the tap point in the list that is bound to the buffer.
std::string TapNameOf(const BufferPtr& buffer, const std::vector<KvoxTapPointState>& taps) {
  if (!buffer) return kNotConnected;
  for (const KvoxTapPointState& state : taps) {
    const uint8_t id = buffer->is_tapout() ? state.info.tapout_buffer : state.info.inject_buffer;
    if (id != buffer->index()) continue;
    return TapName(state.info) + (state.info.enabled == 1 ? "" : kGraphDisabled);
  }
  return kNotConnected;
}

std::string GraphLine(const KvoxProcessor& processor, const Wiring::Endpoints& ends,
                      const std::vector<KvoxTapPointState>& taps) {
  const auto name = [](const BufferPtr& buffer) { return buffer ? buffer->name() : kNotConnected; };
  return "  " + TapNameOf(ends.input, taps) + kGraphArrow + name(ends.input) + kGraphArrow +
         processor.id_text() + (processor.IsEnabled() ? "" : kGraphDisabled) + kGraphArrow +
         name(ends.output) + kGraphArrow + TapNameOf(ends.output, taps);
}

/// Ids, comma-separated.
std::string IdsOf(const std::vector<ProcessorPtr>& processors) {
  std::string ids;
  for (const ProcessorPtr& processor : processors) {
    if (!ids.empty()) ids += ",";
    ids += processor->id_text();
  }
  return ids.empty() ? kNoneInTable : ids;
}

}  // namespace

KvoxService::Status KvoxService::Connect(int32_t processor, int32_t tapout, int32_t inject,
                                         CommandResult* result) {
  return RunChange(result, [&](Report& report) {
    wiring_.Connect(static_cast<FourCc>(processor), tapout, inject, report);
  });
}

KvoxService::Status KvoxService::ConnectTap(int32_t core, int32_t tap, int32_t index,
                                            int32_t tapout, int32_t inject, CommandResult* result) {
  return RunChange(result, [&](Report& report) {
    taps_.Bind({core, static_cast<FourCc>(tap), index}, tapout, inject, report);
  });
}

KvoxService::Status KvoxService::ListTapOutBuffers(CommandResult* result) {
  return Run(result, [this](Report& report) {
    report.Begin(kTapOutTableTitle);
    const auto buffers = inventory_.TapOuts();
    std::string text = buffers.empty() ? kNoTapOuts : kTapOutTableHeader;
    for (const BufferPtr& buffer : buffers) {
      text += FormatText<256>(
          kTapOutTableRow, static_cast<int>(buffer->index()), buffer->name().c_str(), kNoneInTable,
          IdsOf(wiring_.ReadersOf(*buffer)).c_str(), buffer->IsEnabled() ? 1u : 0u);
    }
    report.End("ListTapOutBuffers", text);
  });
}

// Header, ids and empty text differ from those of the other list; clients depend on that.
KvoxService::Status KvoxService::ListInjectBuffers(CommandResult* result) {
  return Run(result, [this](Report& report) {
    report.Begin(kInjectTableTitle);
    const auto buffers = inventory_.Injects();
    std::string text = buffers.empty() ? kNoInjects : kInjectTableHeader;
    for (const BufferPtr& buffer : buffers) {
      const ProcessorPtr writer = wiring_.WriterOf(*buffer);
      text += FormatText<256>(kInjectTableRow, buffer->index(), buffer->name().c_str(),
                              writer ? writer->id_text() : kNoneInTable, kNoneInTable,
                              buffer->IsEnabled() ? 1u : 0u);
    }
    report.End("ListInjectBuffers", text);
  });
}

KvoxService::Status KvoxService::ShowGraph(CommandResult* result) {
  return RunWaiting(result, [this](Report& report) {
    report.Begin(kGraphTitle);
    std::vector<KvoxTapPointState> taps;
    for (const int core : kGraphCores) {
      if (taps_.List(core, taps) == 0) continue;
      return report.End("ShowGraph",
                        {StatusCode::kError, "Error retrieving list of tap points from Kvo core " +
                                                 std::to_string(core)});
    }
    std::string text;
    for (const ProcessorPtr& processor : inventory_.Processors()) {
      if (!text.empty()) text += "\n";
      text += GraphLine(*processor, wiring_.EndpointsOf(*processor), taps);
    }
    report.End("ShowGraph", text.empty() ? kGraphEmpty : text);
  });
}

}  // namespace kvox
