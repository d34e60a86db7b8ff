// Commands that list tap points and set them up.

#include "kvox/common/command_tables.h"
#include "kvox/common/fixed_text.h"
#include "service/kvox_service.h"

namespace kvox {
namespace {

TapArguments Arguments(int32_t core, int32_t tap, int32_t index) {
  return {core, static_cast<FourCc>(tap), index};
}

std::string NameOf(const BufferPtr& buffer) {
  return buffer ? buffer->name() : kNoneInTable;
}

/// The header before the first row, then a row for the tap point.
void AppendRow(const KvoxTapPointState& state, const Inventory& inventory, std::string& table) {
  const TapInfoState& info = state.info;
  if (table.empty()) table += kTapTableHeader;
  const std::string format = FormatText<kTapFormatWidth + 1>(
      kTapFormat, static_cast<double>(static_cast<float>(info.sample_rate) / 1000.0f),
      info.channels, DataFormatLetter(Kvox::DataFormat{state.data_format}),
      info.bytes_per_sample * 8u);
  // Clients see the ids as signed bytes: the upper half names no buffer.
  table += FormatText<128>(
      kTapTableRow, ToString(info.tap).c_str(), info.index, format.c_str(), info.block_length,
      state.noninterleaved_samples, static_cast<uint32_t>(int32_t{state.jitter_buffer}),
      NameOf(inventory.FindTapOut(static_cast<int8_t>(info.tapout_buffer))).c_str(),
      NameOf(inventory.FindInject(static_cast<int8_t>(info.inject_buffer))).c_str(), info.enabled);
}

}  // namespace

KvoxService::Status KvoxService::TapList(int32_t core, CommandResult* result) {
  return RunWaiting(result, [&](Report& report) {
    report.Begin(FormatText<64>("KVO tap list core:%d", core));
    std::string text;
    std::vector<KvoxTapPointState> taps;
    if (taps_.List(core, taps) != 0) {
      text = kTapListFailed;
    } else if (taps.empty()) {
      text = kTapListEmpty;
    } else {
      for (const KvoxTapPointState& state : taps) AppendRow(state, inventory_, text);
    }
    report.End("TapList", text);
  });
}

KvoxService::Status KvoxService::TapInfo(int32_t core, int32_t tap, int32_t index,
                                         CommandResult* result) {
  return RunWaiting(result, [&](Report& report) {
    const TapArguments arguments = Arguments(core, tap, index);
    report.Begin(TapInfoRequest(arguments));
    Outcome outcome;
    KvoxTapPointState state;
    if (taps_.Info(arguments, state) == 0) {
      AppendRow(state, inventory_, outcome.text);
    } else {
      outcome.status = StatusCode::kError;
    }
    report.End("TapInfo", outcome);
  });
}

KvoxService::Status KvoxService::TapEnable(int32_t core, int32_t tap, int32_t index, bool enable,
                                           CommandResult* result) {
  return RunChange(
      result, [&](Report& report) { taps_.Enable(Arguments(core, tap, index), enable, report); });
}

KvoxService::Status KvoxService::TapSetBlockLength(int32_t core, int32_t tap, int32_t index,
                                                   int32_t length, CommandResult* result) {
  return RunChange(result, [&](Report& report) {
    taps_.SetBlockLength(Arguments(core, tap, index), static_cast<uint32_t>(length), report);
  });
}

KvoxService::Status KvoxService::tapSetJitterBuffer(int32_t core, int32_t tap, int32_t index,
                                                    int32_t size, CommandResult* result) {
  return RunChange(result, [&](Report& report) {
    taps_.SetJitterBuffer(Arguments(core, tap, index), static_cast<uint32_t>(size), report);
  });
}

// The co-processor controls its own gains; nothing is sent.
KvoxService::Status KvoxService::TapSetGain(int32_t core, int32_t tap, int32_t index, float gain,
                                            int32_t ramp_ms, CommandResult* result) {
  return Run(result, [&](Report& report) {
    report.Begin(FormatText<64>("Tap point [core %d tap %s.%d] set gain %f, ramp_ms %u", core,
                                ToString(static_cast<FourCc>(tap)).c_str(), index,
                                static_cast<double>(gain), static_cast<uint32_t>(ramp_ms)));
    report.End("TapSetGain", {StatusCode::kError, "Unavailable"});
  });
}

}  // namespace kvox
