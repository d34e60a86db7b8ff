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

std::shared_ptr<AudioRelayProcessor> AudioRelayProcessor::Create(FourCc id, RelayOwner& owner) {
  auto relay = std::make_shared<AudioRelayProcessor>(id, owner);
  const Role& role = RoleOf(id);
  relay->SetBitsPerSample(role.bits);
  relay->SetDataFormat(role.format);
  relay->KvoxProcessor::SetChannels(role.channels);
  return relay;
}

AudioRelayProcessor::AudioRelayProcessor(FourCc id, RelayOwner& owner)
    : KvoxProcessor(id, kType),
      owner_(owner),
      state_(std::make_shared<const RelayState>(nullptr, nullptr)) {}

AudioRelayProcessor::~AudioRelayProcessor() {
  if (const auto last = state(); last->client) last->client->Stop();
  if (passed_by_.rest() > 0) ReportPassedBy(passed_by_.rest());
  if (cut_.rest() > 0) ReportCut(cut_.rest());
}

bool AudioRelayProcessor::IsTelephony() const {
  return RoleOf(id()).telephony;
}

int32_t AudioRelayProcessor::Enable(bool enable) {
  {
    MutexLock lock(processor_mutex_);
    KvoxProcessor::Enable(enable);
    if (enable == IsEnabled()) return 0;
    if (enable && startProcessor() != 0) return -1;
    SetEnabled(enable);
  }
  RefreshFeed();
  return 0;
}

/// Format codes as packets carry them. A tap point tells nothing of how samples are encoded, so as
/// long as its samples have the size of the role's they are taken to be the role's.
IKvox::AudioPacket AudioRelayProcessor::Shape() const {
  const Role& role = RoleOf(id());
  const bool has_role = role.id != 0;
  const auto format = has_role && GetBitsPerSample() == role.bits ? role.format : GetDataFormat();
  IKvox::AudioPacket shape;
  shape.processor_id = static_cast<int32_t>(id());
  shape.sampleRate = static_cast<int8_t>(SampleRateToEnum(GetSampleRate()));
  shape.format = static_cast<int8_t>(format);
  shape.bitsPerSample = static_cast<int8_t>(BitsPerSampleToEnum(GetBitsPerSample()));
  shape.numChannels = static_cast<int8_t>(GetChannels());
  return shape;
}

int32_t AudioRelayProcessor::startProcessor() {
  if (GetSampleRate() != kRelaySampleRate) {
    LogError("Invalid sample rate %u", GetSampleRate());
    return -1;
  }
  if (GetBlockLength() == 0) {
    LogError("Invalid block length");
    return -1;
  }
  if (static_cast<uint8_t>(GetDataFormat()) >= kDataFormatCount) {
    LogError("Unsupported encoding %d", static_cast<int>(GetDataFormat()));
    return -1;
  }
  const IKvox::AudioPacket shape = Shape();
  SetStream(std::make_shared<RelayStream>(shape, GetBlockLength(), GetBitsPerSample(),
                                          owner_.sent_audio_room()));
  IKvox::ParamValue big_endian;
  KvoxProcessor::GetParameter(Id::AUDIO_FORMAT, 5, &big_endian);
  LogInfo("startProcessor sr %u, format %s%u, ch %u, little_endian_ %u", GetSampleRate(),
          DataFormatName(static_cast<Kvox::DataFormat>(shape.format)), GetBitsPerSample(),
          GetChannels(), big_endian.get<Value::i>() == 0 ? 1u : 0u);
  return 0;
}

void AudioRelayProcessor::SetStream(std::shared_ptr<RelayStream> stream) {
  std::shared_ptr<const RelayState> replaced;  // let go of without the lock
  MutexLock lock(audio_mutex_);
  replaced = std::move(state_);
  state_ = std::make_shared<const RelayState>(std::move(stream), replaced->client);
}

int32_t AudioRelayProcessor::SetParameter(Id id, int element, const Value& value) {
  if (id != Id::BLOCK_LENGTH) return KvoxProcessor::SetParameter(id, element, value);
  int32_t status;
  {
    MutexLock lock(processor_mutex_);
    restarting_.store(true, std::memory_order_relaxed);
    status = KvoxProcessor::SetParameter(id, element, value);
    // A length that the tap point refused is stored, but its blocks keep their size.
    if (status == 0 && IsEnabled() && startProcessor() != 0) {
      SetEnabled(false);
      status = 1;
    }
    restarting_.store(false, std::memory_order_relaxed);
  }
  RefreshFeed();
  return status;
}

int32_t AudioRelayProcessor::GetParameter(Id id, int element, Value* value) const {
  if (id != Id::VERSION || element != 1) return KvoxProcessor::GetParameter(id, element, value);
  *value = Value::make<Value::i>(1);
  return 0;
}

int32_t AudioRelayProcessor::SetChannels(uint32_t channels) {
  if (!IsTelephony()) return KvoxProcessor::SetChannels(channels);
  return channels == 1 || channels == 2 ? 0 : -1;
}

int32_t AudioRelayProcessor::SetFormat(const KvoxTapFormat& format) {
  const int32_t status = KvoxProcessor::SetFormat(format);
  if (status != 0 || IsTelephony()) return status;
  {
    MutexLock lock(processor_mutex_);
    const auto current = state();
    const bool fits = !current->stream || current->stream->shape == Shape();
    if (!IsEnabled() || fits || format.sample_rate != kRelaySampleRate) return 0;
    startProcessor();
  }
  RefreshFeed();
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
           "SendAudio", id_text(), packet.data.size(), owner_.sent_audio_room().size());
  return -1;
}

void AudioRelayProcessor::RegisterReceiveAudioCallback(
    const std::shared_ptr<IKvox::IReceiveAudioCallback>& callback) {
  KvoxProcessor::RegisterReceiveAudioCallback(callback);
  FollowCallback(static_cast<uint64_t>(AIBinder_getCallingPid()));
}

/// The client of the blocks becomes the callback that is registered now; its thread counts among
/// those of the process that registered it.
void AudioRelayProcessor::FollowCallback(uint64_t share) {
  std::shared_ptr<const RelayState> replaced;  // let go of without the locks
  {
    MutexLock registration(registration_mutex_);
    const auto callback = receive_audio_callback();
    const auto before = state();
    if (before->client ? before->client->Calls(callback) : callback == nullptr) return;
    std::shared_ptr<RelayClient> client;
    if (callback) client = RelayClient::Start(callback, owner_.client_threads(), share);
    if (callback && !client) {
      LogError("%s: no thread to call the client with, it gets no audio; end other clients first",
               id_text());
    }
    MutexLock lock(audio_mutex_);
    replaced = std::move(state_);
    state_ = std::make_shared<const RelayState>(replaced->stream, std::move(client));
  }
  if (replaced->client) replaced->client->Stop();
  RefreshFeed();
}

void AudioRelayProcessor::onCallbackDeath() {
  LogInfo("%s: receive_audio_callback is not alive and try to disable %s", "onCallbackDeath",
          id_text());
  FollowCallback(0);
  if (owner_.DisableUseCaseOf(*this) != 0) {
    LogError("%s: Failed to disable %s", "onCallbackDeath", id_text());
  }
}

std::shared_ptr<const RelayState> AudioRelayProcessor::state() const {
  MutexLock lock(audio_mutex_);
  return state_;
}

std::shared_ptr<const BlockState> AudioRelayProcessor::block_state() const {
  return state();
}

}  // namespace kvox
