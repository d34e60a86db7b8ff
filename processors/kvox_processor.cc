#include "processors/kvox_processor.h"

#include <cstring>
#include <utility>

#include "kvox/common/command_tables.h"
#include "kvox/common/log.h"

namespace kvox {
namespace {

constexpr auto kRelaxed = std::memory_order_relaxed;

/// More active times than this would not fit into one reply of the transport (1 MiB).
constexpr uint32_t kMaxStatsEntries = ((1u << 20) - 4096) / sizeof(float);

/// What a death notice brings along: which registration of which processor it is about.
struct CallbackLink {
  std::weak_ptr<KvoxProcessor> processor;
  uint64_t serial;
};

void OnBinderDied(void* cookie) {
  const auto* link = static_cast<CallbackLink*>(cookie);
  if (const auto processor = link->processor.lock()) processor->CallbackDied(link->serial);
}

void OnBinderUnlinked(void* cookie) {
  const std::unique_ptr<CallbackLink> link(static_cast<CallbackLink*>(cookie));
  if (const auto processor = link->processor.lock()) processor->onCallbackUnlinked();
}

AIBinder_DeathRecipient* NewDeathRecipient() {
  AIBinder_DeathRecipient* recipient = AIBinder_DeathRecipient_new(OnBinderDied);
  AIBinder_DeathRecipient_setOnUnlinked(recipient, OnBinderUnlinked);
  return recipient;
}

}  // namespace

std::byte* OutputArea::Data() {
  if (!zeroed_) std::memset(area_.data(), 0, area_.size());
  zeroed_ = true;
  return area_.data();
}

KvoxProcessor::KvoxProcessor(FourCc id, FourCc type)
    : id_(id),
      type_(type),
      id_text_(ToFourCcText(id)),
      type_text_(ToFourCcText(type)),
      death_recipient_(NewDeathRecipient()) {}

KvoxProcessor::~KvoxProcessor() = default;

uint32_t KvoxProcessor::getDefaultBlockLength() const {
  return kDefaultBlockLength;
}

void KvoxProcessor::ProcessBlockBegin() {
  stats_.StartMeasurement();
  // Only the I/O thread counts, so load and store suffice.
  blocks_processed_.store(blocks_processed_.load(kRelaxed) + 1, kRelaxed);
}

void KvoxProcessor::ProcessBlockEnd() {
  stats_.StopMeasurement();
}

void KvoxProcessor::Info(std::vector<std::string>& lines) const {
  const auto name = [](const std::shared_ptr<AudioEndpoint>& endpoint) {
    return endpoint ? endpoint->name() : "none";
  };
  lines.push_back(std::string("  Id:      ") + id_text());
  lines.push_back(std::string("  Type:    ") + type_text());
  lines.push_back(std::string("  Enabled: ") + (IsEnabled() ? "1" : "0"));
  lines.push_back("  Input:   " + name(input()));
  lines.push_back("  Output:  " + name(output()));
}

void KvoxProcessor::SetInput(const std::shared_ptr<AudioEndpoint>& input) {
  MutexLock lock(links_mutex_);
  input_ = input;
}

void KvoxProcessor::SetOutput(const std::shared_ptr<AudioEndpoint>& output) {
  {
    MutexLock lock(links_mutex_);
    output_ = output;
  }
  RefreshFeed();
}

void KvoxProcessor::SetFeed(const std::shared_ptr<AudioEndpoint>& feed) {
  MutexLock lock(links_mutex_);
  feed_ = feed;
}

std::shared_ptr<AudioEndpoint> KvoxProcessor::feed() const {
  MutexLock lock(links_mutex_);
  return feed_.lock();
}

void KvoxProcessor::ClearFeedAndInput(const AudioEndpoint* buffer) {
  std::shared_ptr<AudioEndpoint> fed, shown;  // released without the lock
  MutexLock lock(links_mutex_);
  fed = feed_.lock();
  shown = input_.lock();
  if (fed.get() == buffer) feed_.reset();
  if (shown.get() == buffer) input_.reset();
}

void KvoxProcessor::ClearOutput(const AudioEndpoint* buffer) {
  std::shared_ptr<AudioEndpoint> written;  // released without the lock
  {
    MutexLock lock(links_mutex_);
    written = output_.lock();
    if (written.get() == buffer) output_.reset();
  }
  RefreshFeed();
}

void KvoxProcessor::RefreshFeed() {
  if (const auto from = feed()) from->RefreshRoutes();
}

std::shared_ptr<AudioEndpoint> KvoxProcessor::input() const {
  MutexLock lock(links_mutex_);
  return input_.lock();
}

std::shared_ptr<AudioEndpoint> KvoxProcessor::output() const {
  MutexLock lock(links_mutex_);
  return output_.lock();
}

void KvoxProcessor::Disconnect() {
  if (const auto from = feed()) from->UnregisterOutput(this);
  if (const auto to = output()) to->UnregisterInput();
}

int32_t KvoxProcessor::Enable(bool enable) {
  if (enable) stats_.Reset();
  return 0;
}

bool KvoxProcessor::IsEnabled() const {
  return enabled_.load(kRelaxed);
}

int32_t KvoxProcessor::ProcessBlock(const void*, size_t, void*, size_t) {
  ProcessBlockBegin();
  ProcessBlockEnd();
  return 0;
}

BlockResult KvoxProcessor::ProcessPacket(const Block& block, OutputArea* out) {
  std::byte* const area = out == nullptr ? nullptr : out->Data();
  return {.status = ProcessBlock(block.audio.data(), block.audio.size(), area, block.audio.size())};
}

uint32_t KvoxProcessor::GetBlockLength() const {
  return block_length_.load(kRelaxed);
}
uint32_t KvoxProcessor::GetSampleRate() const {
  return sample_rate_.load(kRelaxed);
}
uint32_t KvoxProcessor::GetBitsPerSample() const {
  return bits_per_sample_.load(kRelaxed);
}
Kvox::DataFormat KvoxProcessor::GetDataFormat() const {
  return data_format_.load(kRelaxed);
}
uint32_t KvoxProcessor::GetChannels() const {
  return channels_.load(kRelaxed);
}
uint32_t KvoxProcessor::GetNonInterleavedSamples() const {
  return noninterleaved_samples_.load(kRelaxed);
}

int32_t KvoxProcessor::SetBlockLength(uint32_t frames) {
  block_length_.store(frames, kRelaxed);
  return 0;
}

int32_t KvoxProcessor::SetSampleRate(uint32_t rate) {
  sample_rate_.store(rate, kRelaxed);
  return 0;
}

int32_t KvoxProcessor::SetBitsPerSample(uint32_t bits) {
  bits_per_sample_.store(bits, kRelaxed);
  return 0;
}

int32_t KvoxProcessor::SetDataFormat(Kvox::DataFormat format) {
  data_format_.store(format, kRelaxed);
  return 0;
}

int32_t KvoxProcessor::SetChannels(uint32_t channels) {
  channels_.store(channels, kRelaxed);
  return 0;
}

int32_t KvoxProcessor::SetNonInterleavedSamples(uint32_t samples) {
  noninterleaved_samples_.store(samples, kRelaxed);
  return 0;
}

int32_t KvoxProcessor::SetFormat(const KvoxTapFormat& format) {
  const char* refused = nullptr;
  if (SetSampleRate(format.sample_rate) != 0) {
    refused = "Invalid sample rate";
  } else if (SetChannels(format.channels) != 0) {
    refused = "Invalid format";
  } else if (SetBitsPerSample(uint32_t{format.bytes_per_sample} * 8) != 0) {
    refused = "Invalid bytes per sample";
  } else if (SetDataFormat(Kvox::DataFormat{format.data_format}) != 0) {
    refused = "Invalid encoding";
  } else if (SetNonInterleavedSamples(format.noninterleaved_samples) != 0) {
    refused = "Invalid noninterleaved samples";
  }
  if (refused == nullptr) return 0;
  LogError("%s", refused);
  return -1;
}

int32_t KvoxProcessor::SendAudio(const IKvox::AudioPacket&) {
  return 0;
}

void KvoxProcessor::RegisterReceiveAudioCallback(
    const std::shared_ptr<IKvox::IReceiveAudioCallback>& callback) {
  const ndk::SpAIBinder binder = callback ? callback->asBinder() : ndk::SpAIBinder();
  std::shared_ptr<IKvox::IReceiveAudioCallback> replaced = callback;  // let go of without the lock
  ndk::SpAIBinder unlinked = binder;
  uint64_t serial;
  {
    MutexLock lock(links_mutex_);
    std::swap(receive_audio_callback_, replaced);
    // Linked already: a client may register the same object any number of times.
    if (binder.get() != nullptr && binder == linked_binder_) return;
    std::swap(linked_binder_, unlinked);
    serial = ++callback_serial_;
  }
  if (callback == nullptr) return;
  auto* const link = new CallbackLink{weak_from_this(), serial};
  const binder_status_t status =
      AIBinder_linkToDeath(binder.get(), death_recipient_.get(), link);  // unlinking deletes `link`
  if (status != STATUS_OK) {
    LogError("%s: Failed to link death of callback, status=%d", "RegisterReceiveAudioCallback",
             status);
  }
}

void KvoxProcessor::CallbackDied(uint64_t serial) {
  std::shared_ptr<IKvox::IReceiveAudioCallback> dead;  // released without the lock
  ndk::SpAIBinder unlinked;
  {
    MutexLock lock(links_mutex_);
    if (serial != callback_serial_) return;
    std::swap(receive_audio_callback_, dead);
    std::swap(linked_binder_, unlinked);
  }
  onCallbackDeath();
}

void KvoxProcessor::onCallbackDeath() {}

void KvoxProcessor::onCallbackUnlinked() {}

bool KvoxProcessor::HasReceiveAudioCallback() const {
  return receive_audio_callback() != nullptr;
}

std::shared_ptr<IKvox::IReceiveAudioCallback> KvoxProcessor::receive_audio_callback() const {
  MutexLock lock(links_mutex_);
  return receive_audio_callback_;
}

int32_t KvoxProcessor::SetStatsMaxBufferSize(uint32_t entries) {
  if (entries > kMaxStatsEntries) return -1;
  return stats_.SetBufferSize(entries) ? 0 : -1;
}

int32_t KvoxProcessor::GetStats(IKvox::ProcessorStats* stats) {
  if (stats == nullptr) return -1;
  float average_period = 0;
  std::vector<float> measurements;
  if (!stats_.GetMeasurements(average_period, measurements)) return -1;
  stats->blockCount = static_cast<int32_t>(blocks_processed_.load(kRelaxed));
  stats->bufferEntries = static_cast<int32_t>(stats_.buffer_size());
  stats->averagePeriod = average_period;
  stats->measurements = std::move(measurements);
  return 0;
}

int32_t KvoxProcessor::ResetStats() {
  return stats_.Reset() ? 0 : -1;
}

}  // namespace kvox
