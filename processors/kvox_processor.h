// Base class of all host-side audio processors. A processor takes blocks from one tap-out buffer
// and may fill the blocks of one inject buffer; the wiring decides which. The base class has
// everything that kinds share, and a default for everything except ProcessBlock.
//
// Processors are owned by std::shared_ptr: by the service's table, by the routes that lead to them
// and by commands that use them.
#pragma once

#include <aidl/kvox/IKvox.h>
#include <android/binder_auto_utils.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "kvox/common/command_tables.h"
#include "kvox/common/four_cc.h"
#include "kvox/common/mutex.h"
#include "kvox/common/tap_format.h"
#include "processors/block.h"
#include "processors/processor_stats.h"

namespace kvox {

using aidl::kvox::IKvox;

/// What SetParameter and GetParameter return; clients see these numbers.
enum ParameterStatus : int32_t {
  kParameterStored = 0,
  kParameterNotForwarded = 1,  // stored, but the tap point refused it
  kUnknownParameter = 3,
  kBadParameterValue = 4,
  kReadOnlyParameter = 6,
};

/// Status results are 0 for success and -1 for failure unless noted otherwise. Any thread except an
/// I/O thread may call; functions marked RT belong to the I/O thread of the input buffer.
class KvoxProcessor : public std::enable_shared_from_this<KvoxProcessor> {
 public:
  /// The parts of a format, in the order in which SetFormat applies them.
  enum class FormatField {
    kSampleRate,  // Hz
    kChannels,
    kBitsPerSample,
    kDataFormat,             // Kvox::DataFormat
    kNonInterleavedSamples,  // 0 and 1: interleaved
  };

  /// Passes BLOCK_LENGTH or JITTER_BUFFER, in frames, on to the tap point that feeds the processor.
  /// False when it refuses; true when it took the value or there is no such tap point.
  using TapForward = std::function<bool(IKvox::ParameterId setting, uint32_t frames)>;

  KvoxProcessor(FourCc id, FourCc type);
  virtual ~KvoxProcessor();
  KvoxProcessor(const KvoxProcessor&) = delete;
  KvoxProcessor& operator=(const KvoxProcessor&) = delete;

  FourCc id() const { return id_; }
  const char* id_text() const { return id_text_.data(); }
  const char* type_text() const { return type_text_.data(); }

  /// Appends the lines of the processor-info command. `input` and `output` name the connected
  /// buffers.
  virtual void Info(const std::string& input, const std::string& output,
                    std::vector<std::string>& lines) const;

  /// Restarts the statistics when enabling, whether the state changes or not.
  virtual int32_t Enable(bool enable);
  bool IsEnabled() const { return enabled_.load(std::memory_order_relaxed); }

  /// RT: processes one block. `out` is null when no enabled inject buffer takes it.
  virtual BlockResult ProcessBlock(const Block& block, OutputArea* out) = 0;

  /// The state for the kind's blocks; null for none. A kind that changes it notifies its host.
  virtual std::shared_ptr<const BlockState> block_state() const { return nullptr; }

  /// Both return a ParameterStatus.
  virtual int32_t SetParameter(IKvox::ParameterId id, int element, const IKvox::ParamValue& value,
                               const TapForward& forward);
  virtual int32_t GetParameter(IKvox::ParameterId id, int element, IKvox::ParamValue* value) const;
  uint32_t block_length() const { return block_length_.load(std::memory_order_relaxed); }  // frames

  /// Applies a format field by field and stops at the first one that the kind refuses.
  virtual int32_t SetFormat(const KvoxTapFormat& format);
  uint32_t format(FormatField field) const {
    return format_[static_cast<size_t>(field)].load(std::memory_order_relaxed);
  }

  /// Takes a block from a client. Ignored by default.
  virtual int32_t SendAudio(const IKvox::AudioPacket& packet);

  /// Passes the processor's audio to `callback` from now on, instead of the previous one; null, or
  /// the callback's death, ends that.
  virtual void RegisterReceiveAudioCallback(
      const std::shared_ptr<IKvox::IReceiveAudioCallback>& callback);
  bool HasReceiveAudioCallback() const { return receive_audio_callback() != nullptr; }

  /// The callback of registration number `serial` has died. Ignored when it has been replaced
  /// since.
  void CallbackDied(uint64_t serial);

  KvoxProcessorStats& stats() { return stats_; }

 protected:
  /// Stores a field; false refuses it. A kind that does not support every value overrides this.
  virtual bool SetFormatField(FormatField field, uint32_t value);

  /// Called after the dead callback has been dropped.
  virtual void OnCallbackDied() {}

  std::shared_ptr<IKvox::IReceiveAudioCallback> receive_audio_callback() const;
  void SetEnabled(bool enabled) { enabled_.store(enabled, std::memory_order_relaxed); }

 private:
  int32_t AudioFormatElement(int element) const;
  int32_t StoreFrames(IKvox::ParameterId id, uint32_t frames, const TapForward& forward);

  const FourCc id_;
  const FourCcText id_text_;
  const FourCcText type_text_;

  // Settings: written by commands, read by any thread. Relaxed: they publish nothing else.
  std::atomic<bool> enabled_ = false;
  std::atomic<bool> passthrough_mode_ = false;
  std::atomic<bool> test_mode_ = false;
  std::atomic<uint32_t> block_length_ = kDefaultBlockLength;
  std::atomic<uint32_t> jitter_buffer_ = 0;
  std::array<std::atomic<uint32_t>, 5> format_{{48000, 1, 32, 0, 0}};

  KvoxProcessorStats stats_;

  const ndk::ScopedAIBinder_DeathRecipient death_recipient_;
  mutable Mutex callback_mutex_;  // a leaf lock
  std::shared_ptr<IKvox::IReceiveAudioCallback> receive_audio_callback_ GUARDED_BY(callback_mutex_);
  ndk::SpAIBinder linked_binder_ GUARDED_BY(callback_mutex_);  // the callback's
  uint64_t callback_serial_ GUARDED_BY(callback_mutex_) = 0;
};

}  // namespace kvox
