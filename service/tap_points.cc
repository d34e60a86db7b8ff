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
constexpr auto kListTimeout = std::chrono::seconds(30);

constexpr char kFormatError[] = "Error setting audio format from tap point";

}  // namespace

int32_t TapPoints::Query(const TapArguments& tap, KvoxTapPointState& state, bool* replied) {
  TapInfoRecord record;
  record.state.tap = tap.Address().tap;
  record.state.index = tap.Address().index;
  record.state.core = tap.Address().core;
  const int32_t status = link_.SendKvoxCommand(CMD_TAP_INFO_ID, &record.header, sizeof record);
  if (status != 0) {
    LogError("%s failed, status %d", "CMD_TAP_INFO_ID", status);
    if (replied != nullptr) *replied = record.header.status != 0;
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
    if (page == 0) NoteCore(record.core, record.header.status != 0);
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

void TapPoints::NoteCore(uint8_t core, bool refused) {
  MutexLock lock(cores_mutex_);
  if (refused) {
    refused_cores_.insert(core);
  } else {
    refused_cores_.erase(core);
  }
}

std::set<int> TapPoints::refused_cores() const {
  MutexLock lock(cores_mutex_);
  return refused_cores_;
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
    if (binding.outcome.status == StatusCode::kOk) RestoreRest(TapKey(tap.Address()));
  }
  FinishBinding(std::move(binding), report);
}

bool TapPoints::IsSaved(const TapArguments& tap) const {
  return saved_.FindTap(TapKey(tap.Address())).has_value();
}

void TapPoints::Forget(const TapArguments& tap) {
  MutexLock lock(service_mutex_);
  saved_.ForgetTap(tap);
}

/// An exchange whose reply has only a status, which stays 0 in the record when none comes.
template <typename Record>
Outcome TapPoints::Send(const char* name, uint16_t opcode, Record& record) {
  const int32_t status = link_.SendKvoxCommand(opcode, &record.header, sizeof record);
  if (status == 0) return {};
  return {StatusCode::kError, FormatText<64>("%s failed, status %d", name, status),
          record.header.status == 0};
}

Outcome TapPoints::SendEnable(const TapArguments& tap, bool enable) {
  TapEnableRecord record;
  record.address = tap.Address();
  record.enable = enable ? 1 : 0;
  return Send("CMD_KVOX_TAP_ENABLE_ID", CMD_KVOX_TAP_ENABLE_ID, record);
}

Outcome TapPoints::SendBlockLength(const TapArguments& tap, uint32_t frames) {
  TapSettingRecord record;
  record.address = tap.Address();
  record.value = frames;
  return Send("CMD_KVOX_TAP_SET_BLOCK_LEN_ID", CMD_KVOX_TAP_SET_BLOCK_LEN_ID, record);
}

Outcome TapPoints::SendJitterBuffer(const TapArguments& tap, uint32_t size) {
  TapSettingRecord record;
  record.address = tap.Address();
  record.value = size;
  return Send("CMD_KVOX_TAP_SET_JITTER_BUFFER_ID", CMD_KVOX_TAP_SET_JITTER_BUFFER_ID, record);
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
  binding.outcome = Send("CMD_KVOX_TAP_BIND_ID", CMD_KVOX_TAP_BIND_ID, record);
  if (binding.outcome.status != StatusCode::kOk) return binding;
  if (saving == Saving::kYes) {
    saved_.BindTap(tap, record.tapout_buffer, record.inject_buffer);
    saved_.ForgetTapIfIdle(tap);
  }
  if (tapout < 0) return binding;
  KvoxTapPointState state;
  bool replied = true;
  if (Query(tap, state, &replied) != 0) {
    binding.outcome = {StatusCode::kError, kFormatError, !replied};
    return binding;
  }
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

TapPoints::Restored TapPoints::Restore(TapKey key, const std::function<bool()>& stopping) {
  {
    MutexLock lock(service_mutex_);
    half_restored_.insert(key);
  }
  const Restored bound = RestoreBinding(key);
  if (bound != Restored::kDone || stopping()) return bound;
  MutexLock lock(service_mutex_);
  return RestoreRest(key);
}

TapPoints::Restored TapPoints::RestoreRest(TapKey key) {
  if (!half_restored_.contains(key)) return Restored::kDone;
  const auto saved = saved_.FindTap(key);
  const Restored outcome = saved ? RestoreSettings(*saved) : Restored::kDone;
  if (outcome == Restored::kDone) half_restored_.erase(key);
  return outcome;
}

TapPoints::Restored TapPoints::RestoreBinding(TapKey key) {
  Report report;
  Binding binding;
  {
    MutexLock lock(service_mutex_);
    const auto saved = saved_.FindTap(key);
    if (!saved) return Restored::kDone;
    LogInfo("Restore tap point state %s", TapName(saved->info).c_str());
    const int tapout = BufferNumber(saved->info.tapout_buffer);
    const int inject = BufferNumber(saved->info.inject_buffer);
    report.Begin(BindingRequest(saved->Arguments(), tapout, inject));
    binding = SendBinding(saved->Arguments(), tapout, inject, Saving::kNo);
  }
  const bool no_reply = binding.outcome.no_reply;
  FinishBinding(std::move(binding), report);
  if (report.ok()) return Restored::kDone;
  return no_reply ? Restored::kNoReply : Restored::kRefused;
}

TapPoints::Restored TapPoints::RestoreSettings(const KvoxTapPointState& saved) {
  const TapArguments tap = saved.Arguments();
  Report report;
  Outcome outcome;
  const auto end = [&](const char* command, Outcome sent) {
    outcome = std::move(sent);
    report.End(command, outcome);
    return report.ok();
  };
  const auto failed = [&] { return outcome.no_reply ? Restored::kNoReply : Restored::kRefused; };
  if (const uint32_t frames = saved.info.block_length; static_cast<int32_t>(frames) >= 0) {
    report.Begin(BlockLengthRequest(tap, frames));
    if (!end("TapSetBlockLength", SendBlockLength(tap, frames))) return failed();
  }
  if (saved.jitter_buffer >= 0) {
    const auto size = static_cast<uint32_t>(saved.jitter_buffer);
    report.Begin(JitterBufferRequest(tap, size));
    if (!end("tapSetJitterBuffer", SendJitterBuffer(tap, size))) return failed();
  }
  const bool enable = saved.info.enabled != 0;
  report.Begin(TapEnableRequest(tap, enable));
  return end("TapEnable", SendEnable(tap, enable)) ? Restored::kDone : failed();
}

}  // namespace kvox
