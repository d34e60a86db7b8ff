#include "processors/kvox_processor.h"

#include <cstring>
#include <utility>

#include "kvox/common/log.h"

namespace kvox {
namespace {

/// The cookie of a death notice: the processor and the registration.
struct CallbackLink {
  std::weak_ptr<KvoxProcessor> processor;
  uint64_t serial;
};

void OnBinderDied(void* cookie) {
  const auto* link = static_cast<CallbackLink*>(cookie);
  if (const auto processor = link->processor.lock()) processor->CallbackDied(link->serial);
}

void OnBinderUnlinked(void* cookie) {
  delete static_cast<CallbackLink*>(cookie);
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
      id_text_(ToFourCcText(id)),
      type_text_(ToFourCcText(type)),
      death_recipient_(NewDeathRecipient()) {}

KvoxProcessor::~KvoxProcessor() = default;

void KvoxProcessor::Info(const std::string& input, const std::string& output,
                         std::vector<std::string>& lines) const {
  lines.push_back(std::string("  Id:      ") + id_text());
  lines.push_back(std::string("  Type:    ") + type_text());
  lines.push_back(std::string("  Enabled: ") + (IsEnabled() ? "1" : "0"));
  lines.push_back("  Input:   " + input);
  lines.push_back("  Output:  " + output);
}

int32_t KvoxProcessor::Enable(bool enable) {
  if (enable) stats_.Reset();
  SetEnabled(enable);
  return 0;
}

int32_t KvoxProcessor::SetFormat(const KvoxTapFormat& format) {
  const struct {
    FormatField field;
    uint32_t value;
    const char* refusal;
  } rows[] = {
      {FormatField::kSampleRate, format.sample_rate, "Invalid sample rate"},
      {FormatField::kChannels, format.channels, "Invalid format"},
      {FormatField::kBitsPerSample, format.bytes_per_sample * 8u, "Invalid bytes per sample"},
      {FormatField::kDataFormat, format.data_format, "Invalid encoding"},
      {FormatField::kNonInterleavedSamples, format.noninterleaved_samples,
       "Invalid noninterleaved samples"},
  };
  for (const auto& row : rows) {
    if (SetFormatField(row.field, row.value)) continue;
    LogError("%s", row.refusal);
    return -1;
  }
  return 0;
}

bool KvoxProcessor::SetFormatField(FormatField field, uint32_t value) {
  format_[static_cast<size_t>(field)].store(value, std::memory_order_relaxed);
  return true;
}

int32_t KvoxProcessor::SendAudio(const IKvox::AudioPacket&) {
  return 0;
}

void KvoxProcessor::RegisterReceiveAudioCallback(
    const std::shared_ptr<IKvox::IReceiveAudioCallback>& callback) {
  const ndk::SpAIBinder binder = callback ? callback->asBinder() : ndk::SpAIBinder();
  std::shared_ptr<IKvox::IReceiveAudioCallback> replaced = callback;  // released without the lock
  ndk::SpAIBinder unlinked = binder;
  uint64_t serial;
  {
    MutexLock lock(callback_mutex_);
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
    MutexLock lock(callback_mutex_);
    if (serial != callback_serial_) return;
    std::swap(receive_audio_callback_, dead);
    std::swap(linked_binder_, unlinked);
  }
  OnCallbackDied();
}

std::shared_ptr<IKvox::IReceiveAudioCallback> KvoxProcessor::receive_audio_callback() const {
  MutexLock lock(callback_mutex_);
  return receive_audio_callback_;
}

}  // namespace kvox
