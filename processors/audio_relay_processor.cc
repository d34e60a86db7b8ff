#include "processors/audio_relay_processor.h"

#include <algorithm>
#include <utility>

#include "kvox/common/kvox_utils.h"
#include "kvox/common/log.h"
#include "processors/audio_relay_state.h"

namespace kvox {
namespace {

using Id = IKvox::ParameterId;
using Value = IKvox::ParamValue;

constexpr uint64_t kReportNs = 1'000'000'000;

struct Role {
  FourCc id;
  bool telephony;
  uint32_t bits;
  Kvox::DataFormat format;
  uint32_t channels;
};

constexpr Role kRoles[] = {
    {MakeFourCc("art0"), true, 16, Kvox::DataFormat::INT, 1},
    {MakeFourCc("art1"), true, 16, Kvox::DataFormat::INT, 1},
    {MakeFourCc("armd"), false, 32, Kvox::DataFormat::FLOAT, 2},
};
constexpr Role kNoRole = {0, false, 32, Kvox::DataFormat::INT, 1};

const Role& RoleOf(FourCc id) {
  for (const Role& role : kRoles) {
    if (role.id == id) return role;
  }
  return kNoRole;
}

}  // namespace

uint32_t BlockCounter::TakeDue(uint64_t now_ns) {
  if (count_ == 0 || (reported_ns_ != 0 && now_ns - reported_ns_ < kReportNs)) return 0;
  reported_ns_ = now_ns;
  return std::exchange(count_, 0);
}

std::shared_ptr<AudioRelayProcessor> AudioRelayProcessor::Create(FourCc id, ProcessorHost& host) {
  auto relay = std::make_shared<AudioRelayProcessor>(id, host);
  const Role& role = RoleOf(id);
  relay->KvoxProcessor::SetFormatField(FormatField::kBitsPerSample, role.bits);
  relay->KvoxProcessor::SetFormatField(FormatField::kDataFormat, static_cast<uint8_t>(role.format));
  relay->KvoxProcessor::SetFormatField(FormatField::kChannels, role.channels);
  return relay;
}

AudioRelayProcessor::AudioRelayProcessor(FourCc id, ProcessorHost& host)
    : KvoxProcessor(id, kType),
      host_(host),
      state_(std::make_shared<const RelayState>(nullptr, nullptr)) {}

AudioRelayProcessor::~AudioRelayProcessor() {
  if (const auto last = state(); last->client) last->client->Stop();
  if (missed_.rest() > 0) ReportMissed(missed_.rest());
  if (cut_.rest() > 0) ReportCut(cut_.rest());
}

bool AudioRelayProcessor::IsTelephony() const {
  return RoleOf(id()).telephony;
}

int32_t AudioRelayProcessor::Enable(bool enable) {
  {
    MutexLock lock(processor_mutex_);
    if (enable) stats().Reset();
    if (enable == IsEnabled()) return 0;
    if (enable && startProcessor() != 0) return -1;
    SetEnabled(enable);
  }
  StateChanged();
  return 0;
}

/// Format codes as in packets. A tap point does not say how its samples are encoded: if they have
/// the size of the role's samples, they are assumed to have its encoding.
IKvox::AudioPacket AudioRelayProcessor::Shape() const {
  const Role& role = RoleOf(id());
  const bool has_role = role.id != 0;
  const uint32_t bits = format(FormatField::kBitsPerSample);
  const auto encoding = has_role && bits == role.bits
                            ? role.format
                            : static_cast<Kvox::DataFormat>(format(FormatField::kDataFormat));
  IKvox::AudioPacket shape;
  shape.processor_id = static_cast<int32_t>(id());
  shape.sampleRate = static_cast<int8_t>(SampleRateToEnum(format(FormatField::kSampleRate)));
  shape.format = static_cast<int8_t>(encoding);
  shape.bitsPerSample = static_cast<int8_t>(BitsPerSampleToEnum(bits));
  shape.numChannels = static_cast<int8_t>(format(FormatField::kChannels));
  return shape;
}

int32_t AudioRelayProcessor::startProcessor() {
  const uint32_t rate = format(FormatField::kSampleRate);
  const uint32_t bits = format(FormatField::kBitsPerSample);
  const uint32_t encoding = format(FormatField::kDataFormat);
  if (rate != kRelaySampleRate) {
    LogError("Invalid sample rate %u", rate);
    return -1;
  }
  if (encoding >= kDataFormatCount) {
    LogError("Unsupported encoding %d", static_cast<int>(encoding));
    return -1;
  }
  const IKvox::AudioPacket shape = Shape();
  const auto before = state()->stream;
  // With the same layout, a block that the client has sent still goes out.
  if (!before || before->shape != shape || before->block_length != block_length() ||
      before->bytes_per_sample != bits / 8) {
    SetStream(
        std::make_shared<RelayStream>(shape, block_length(), bits, host_.sent_audio_budget()));
  }
  LogInfo("startProcessor sr %u, format %s%u, ch %u, little_endian_ %u", rate,
          DataFormatName(static_cast<Kvox::DataFormat>(shape.format)), bits,
          format(FormatField::kChannels), 1u);
  return 0;
}

void AudioRelayProcessor::SetStream(std::shared_ptr<RelayStream> stream) {
  std::shared_ptr<const RelayState> replaced;  // released without the lock
  MutexLock lock(audio_mutex_);
  replaced = std::move(state_);
  state_ = std::make_shared<const RelayState>(std::move(stream), replaced->client);
}

int32_t AudioRelayProcessor::SetParameter(Id id, int element, const Value& value,
                                          const TapForward& forward) {
  if (id != Id::BLOCK_LENGTH) return KvoxProcessor::SetParameter(id, element, value, forward);
  int32_t status;
  {
    MutexLock lock(processor_mutex_);
    restarting_.store(true, std::memory_order_relaxed);
    status = KvoxProcessor::SetParameter(id, element, value, forward);
    // A length that the tap point refused is stored, but the blocks keep their size.
    if (status == kParameterStored && IsEnabled() && startProcessor() != 0) {
      SetEnabled(false);
      status = kParameterNotForwarded;
    }
    restarting_.store(false, std::memory_order_relaxed);
  }
  StateChanged();
  return status;
}

int32_t AudioRelayProcessor::GetParameter(Id id, int element, Value* value) const {
  if (id != Id::VERSION || element != 1) return KvoxProcessor::GetParameter(id, element, value);
  *value = Value::make<Value::i>(1);
  return 0;
}

bool AudioRelayProcessor::SetFormatField(FormatField field, uint32_t value) {
  if (field == FormatField::kChannels && IsTelephony()) return value == 1 || value == 2;
  return KvoxProcessor::SetFormatField(field, value);
}

int32_t AudioRelayProcessor::SetFormat(const KvoxTapFormat& tap) {
  const int32_t status = KvoxProcessor::SetFormat(tap);
  if (status != 0 || IsTelephony()) return status;
  {
    MutexLock lock(processor_mutex_);
    const auto current = state();
    const bool fits = !current->stream || current->stream->shape == Shape();
    if (!IsEnabled() || fits || tap.sample_rate != kRelaySampleRate) return 0;
    startProcessor();
  }
  StateChanged();
  return 0;
}

int32_t AudioRelayProcessor::SendAudio(const IKvox::AudioPacket& packet) {
  const auto current = state();
  const IKvox::AudioPacket expected =
      current->stream ? current->stream->shape : IKvox::AudioPacket();
  const char* mismatch = nullptr;
  if (packet.processor_id != expected.processor_id) {
    mismatch = "processor_id";
  } else if (packet.sampleRate != expected.sampleRate) {
    mismatch = "sampleRate";
  } else if (packet.format != expected.format) {
    mismatch = "format";
  } else if (packet.bitsPerSample != expected.bitsPerSample) {
    mismatch = "bitsPerSample";
  } else if (packet.numChannels != expected.numChannels) {
    mismatch = "numChannels";
  } else if (!current->stream || packet.data.size() != current->stream->sent.block_size()) {
    mismatch = "data size";
  }
  if (mismatch != nullptr) {
    LogError("%s %s: %s mismatch", "SendAudio", id_text(), mismatch);
    return -1;
  }
  if (current->stream->sent.Put(packet.data)) return 0;
  LogError("%s %s: no room for blocks of %zu bytes, other relays have most of %zu; delete some",
           "SendAudio", id_text(), packet.data.size(), host_.sent_audio_budget().size());
  return -1;
}

void AudioRelayProcessor::RegisterReceiveAudioCallback(
    const std::shared_ptr<IKvox::IReceiveAudioCallback>& callback) {
  KvoxProcessor::RegisterReceiveAudioCallback(callback);
  FollowCallback(static_cast<uint64_t>(AIBinder_getCallingPid()));
}

/// Makes the currently registered callback the client of the blocks. Its thread belongs to `owner`,
/// the process that registered it.
void AudioRelayProcessor::FollowCallback(uint64_t owner) {
  std::shared_ptr<const RelayState> replaced;  // released without the locks
  {
    MutexLock registration(registration_mutex_);
    const auto callback = receive_audio_callback();
    const auto before = state();
    if (before->client ? before->client->Calls(callback) : callback == nullptr) return;
    std::shared_ptr<RelayClient> client;
    if (callback) {
      client = RelayClient::Start(callback, host_.client_threads(), owner, client_thread_);
    }
    if (callback && !client) {
      LogError("%s: no thread to call the client with, it gets no audio; end other clients first",
               id_text());
    }
    MutexLock lock(audio_mutex_);
    replaced = std::move(state_);
    state_ = std::make_shared<const RelayState>(replaced->stream, std::move(client));
  }
  if (replaced->client) replaced->client->Stop();
  StateChanged();
}

void AudioRelayProcessor::OnCallbackDied() {
  LogInfo("%s: receive_audio_callback is not alive and try to disable %s", "onCallbackDeath",
          id_text());
  FollowCallback(0);
  host_.EndUseCaseOf(shared_from_this());
}

std::shared_ptr<const RelayState> AudioRelayProcessor::state() const {
  MutexLock lock(audio_mutex_);
  return state_;
}

std::shared_ptr<const BlockState> AudioRelayProcessor::block_state() const {
  return state();
}

}  // namespace kvox
