#include "service/tap_points.h"

#include <chrono>
#include <utility>

#include "kvox/common/fixed_text.h"
#include "kvox/common/log.h"

namespace kvox {
namespace {

/// The page number has 8 bits; a longer list is considered endless.
constexpr int kMaxListPages = 256;

/// For one list; a phone's takes a few milliseconds.
constexpr auto kListTimeout = std::chrono::seconds(5);

constexpr char kFormatError[] = "Error setting audio format from tap point";

/// For an exchange whose reply has only a status.
Outcome OutcomeOf(const char* opcode, int32_t status) {
  if (status == 0) return {};
  return {StatusCode::kError, FormatText<64>("%s failed, status %d", opcode, status)};
}

}  // namespace

int32_t TapPoints::Query(const TapArguments& tap, KvoxTapPointState& state) {
  TapInfoRecord record;
  record.state.tap = tap.Address().tap;
  record.state.index = tap.Address().index;
  record.state.core = tap.Address().core;
  const int32_t status = link_.SendKvoxCommand(CMD_TAP_INFO_ID, &record.header, sizeof record);
  if (status != 0) {
    LogError("%s failed, status %d", "CMD_TAP_INFO_ID", status);
    return status;
  }
  state = StateFromReply(record.state);
  return 0;
}

int32_t TapPoints::Info(const TapArguments& tap, KvoxTapPointState& state) {
  MutexLock lock(service_mutex_);
  return Query(tap, state);
}

/// Without the service mutex: a long list at a slow co-processor does not hold up other commands.
int32_t TapPoints::List(int core, std::vector<KvoxTapPointState>& taps) {
  const auto deadline = std::chrono::steady_clock::now() + kListTimeout;
  for (int page = 0; page < kMaxListPages; ++page) {
    if (std::chrono::steady_clock::now() > deadline) {
      LogError("CMD_KVOX_TAP_LIST_ID on KVO core %d: gave up at page %d, the co-processor is slow",
               core, page);
      return -1;
    }
    TapListRecord record;
    record.core = static_cast<uint8_t>(core);
    record.page = static_cast<uint8_t>(page);
    const int32_t status =
        link_.SendKvoxCommand(CMD_KVOX_TAP_LIST_ID, &record.header, sizeof record);
    if (status != 0) {
      LogError("CMD_KVOX_TAP_LIST_ID on KVO core %d, status %d", core, status);
      return -1;
    }
    for (const TapListRecord::Entry& entry : record.entries) {
      if (entry.tap == 0) return 0;
      KvoxTapPointState state;
      if (Query({core, entry.tap, entry.index}, state) != 0) return -1;
      taps.push_back(state);
    }
  }
  LogError("CMD_KVOX_TAP_LIST_ID on KVO core %d: no end after %d pages", core, kMaxListPages);
  return -1;
}

void TapPoints::Enable(const TapArguments& tap, bool enable, Report& report) {
  report.Begin(TapEnableRequest(tap, enable));
  MutexLock lock(service_mutex_);
  const Outcome outcome = SendEnable(tap, enable);
  if (outcome.status == StatusCode::kOk) {
    saved_.ChangeTap(tap, [&](KvoxTapPointState& state) { state.info.enabled = enable ? 1 : 0; });
    saved_.ForgetTapIfIdle(tap);
  }
  report.End("TapEnable", outcome);
}

void TapPoints::SetBlockLength(const TapArguments& tap, uint32_t frames, Report& report) {
  report.Begin(BlockLengthRequest(tap, frames));
  MutexLock lock(service_mutex_);
  const Outcome outcome = SendBlockLength(tap, frames);
  if (outcome.status == StatusCode::kOk) {
    saved_.ChangeTap(tap, [&](KvoxTapPointState& state) { state.info.block_length = frames; });
  }
  report.End("TapSetBlockLength", outcome);
}

void TapPoints::SetJitterBuffer(const TapArguments& tap, uint32_t size, Report& report) {
  report.Begin(JitterBufferRequest(tap, size));
  MutexLock lock(service_mutex_);
  const Outcome outcome = SendJitterBuffer(tap, size);
  if (outcome.status == StatusCode::kOk) {
    saved_.ChangeTap(
        tap, [&](KvoxTapPointState& state) { state.jitter_buffer = static_cast<int16_t>(size); });
  }
  report.End("tapSetJitterBuffer", outcome);
}

void TapPoints::Bind(const TapArguments& tap, int tapout, int inject, Report& report) {
  report.Begin(BindingRequest(tap, tapout, inject));
  Binding binding;
  {
    MutexLock lock(service_mutex_);
    binding = SendBinding(tap, tapout, inject, Saving::kYes);
  }
  FinishBinding(std::move(binding), report);
}

Outcome TapPoints::SendEnable(const TapArguments& tap, bool enable) {
  TapEnableRecord record;
  record.address = tap.Address();
  record.enable = enable ? 1 : 0;
  return OutcomeOf("CMD_KVOX_TAP_ENABLE_ID",
                   link_.SendKvoxCommand(CMD_KVOX_TAP_ENABLE_ID, &record.header, sizeof record));
}

Outcome TapPoints::SendBlockLength(const TapArguments& tap, uint32_t frames) {
  TapSettingRecord record;
  record.address = tap.Address();
  record.value = frames;
  return OutcomeOf(
      "CMD_KVOX_TAP_SET_BLOCK_LEN_ID",
      link_.SendKvoxCommand(CMD_KVOX_TAP_SET_BLOCK_LEN_ID, &record.header, sizeof record));
}

Outcome TapPoints::SendJitterBuffer(const TapArguments& tap, uint32_t size) {
  TapSettingRecord record;
  record.address = tap.Address();
  record.value = size;
  return OutcomeOf(
      "CMD_KVOX_TAP_SET_JITTER_BUFFER_ID",
      link_.SendKvoxCommand(CMD_KVOX_TAP_SET_JITTER_BUFFER_ID, &record.header, sizeof record));
}

void TapPoints::SaveBinding(const TapArguments& tap, int tapout, int inject) {
  saved_.ChangeTap(tap, [&](KvoxTapPointState& state) {
    state.info.tapout_buffer = static_cast<uint8_t>(tapout);
    state.info.inject_buffer = static_cast<uint8_t>(inject);
  });
  saved_.ForgetTapIfIdle(tap);
}

TapPoints::Binding TapPoints::SendBinding(const TapArguments& tap, int tapout, int inject,
                                          Saving saving) {
  Binding binding;
  const auto fail = [&](std::string text) {
    binding.outcome = {StatusCode::kError, std::move(text)};
    return binding;
  };
  const BufferPtr source = inventory_.FindTapOut(tapout);
  if (tapout >= 0 && !source) return fail(FormatText<128>("Tap out buffer %d not found", tapout));
  if (inject >= 0 && !inventory_.FindInject(inject)) {
    return fail(FormatText<128>("Tap out buffer %d not found", inject));
  }
  TapBindRecord record;
  record.address = tap.Address();
  record.tapout_buffer = static_cast<uint8_t>(tapout);
  record.inject_buffer = static_cast<uint8_t>(inject);
  binding.outcome =
      OutcomeOf("CMD_KVOX_TAP_BIND_ID",
                link_.SendKvoxCommand(CMD_KVOX_TAP_BIND_ID, &record.header, sizeof record));
  if (binding.outcome.status != StatusCode::kOk) return binding;
  if (saving == Saving::kYes) SaveBinding(tap, tapout, inject);
  if (tapout < 0) return binding;
  KvoxTapPointState state;
  if (Query(tap, state) != 0) return fail(kFormatError);
  binding.tapout = source;
  binding.format.sample_rate = state.info.sample_rate;
  binding.format.channels = state.info.channels;
  binding.format.bytes_per_sample = state.info.bytes_per_sample;
  return binding;
}

void TapPoints::FinishBinding(Binding binding, Report& report) {
  if (binding.tapout && wiring_.SetRxFormat(binding.tapout, binding.format) != 0) {
    binding.outcome = {StatusCode::kError, kFormatError};
  }
  report.End("ConnectTap", binding.outcome);
}

bool TapPoints::Restore(TapKey key, const std::function<bool()>& stopping) {
  Report report;
  Binding binding;
  {
    MutexLock lock(service_mutex_);
    const auto saved = saved_.FindTap(key);
    if (!saved) return true;
    LogInfo("Restore tap point state %s", TapName(saved->info).c_str());
    const int tapout = BufferNumber(saved->info.tapout_buffer);
    const int inject = BufferNumber(saved->info.inject_buffer);
    report.Begin(BindingRequest(saved->Arguments(), tapout, inject));
    binding = SendBinding(saved->Arguments(), tapout, inject, Saving::kNo);
  }
  FinishBinding(std::move(binding), report);
  if (!report.ok() || stopping()) return false;

  MutexLock lock(service_mutex_);
  const auto saved = saved_.FindTap(key);
  return !saved || RestoreSettings(*saved);
}

bool TapPoints::RestoreSettings(const KvoxTapPointState& saved) {
  Report report;
  const TapArguments tap = saved.Arguments();
  if (const uint32_t frames = saved.info.block_length; static_cast<int32_t>(frames) >= 0) {
    report.Begin(BlockLengthRequest(tap, frames));
    report.End("TapSetBlockLength", SendBlockLength(tap, frames));
    if (!report.ok()) return false;
  }
  if (saved.jitter_buffer >= 0) {
    const auto size = static_cast<uint32_t>(saved.jitter_buffer);
    report.Begin(JitterBufferRequest(tap, size));
    report.End("tapSetJitterBuffer", SendJitterBuffer(tap, size));
    if (!report.ok()) return false;
  }
  const bool enable = saved.info.enabled != 0;
  report.Begin(TapEnableRequest(tap, enable));
  report.End("TapEnable", SendEnable(tap, enable));
  return report.ok();
}

}  // namespace kvox
