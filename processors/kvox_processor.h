// Base of every host-side audio processor: it takes blocks from one tap-out buffer, its input, and
// may fill the blocks of one inject buffer, its output. The base holds all common state and a
// complete default of every operation; a kind overrides what it needs.
//
// Processors are owned by std::shared_ptr: by the service's table, by the buffers they are
// registered with and by commands at work. The owner that drops a processor calls Disconnect()
// first. Buffers are held weakly, so neither side dangles.
#pragma once

#include <aidl/kvox/IKvox.h>
#include <android/binder_auto_utils.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "kvox/common/command_tables.h"
#include "kvox/common/four_cc.h"
#include "kvox/common/mutex.h"
#include "kvox/common/tap_format.h"
#include "processors/audio_endpoint.h"
#include "processors/block.h"
#include "processors/processor_stats.h"

namespace kvox {

using aidl::kvox::IKvox;

class KvoxProcessor : public std::enable_shared_from_this<KvoxProcessor> {
 public:
  KvoxProcessor(FourCc id, FourCc type);
  KvoxProcessor(const KvoxProcessor&) = delete;
  KvoxProcessor& operator=(const KvoxProcessor&) = delete;

  // The virtual operations keep this order. Status results are 0 for success and -1 for failure
  // unless something else is said. Any thread but the I/O thread may call them, except those marked
  // RT, which belong to the I/O thread of the input buffer.

  virtual bool isParameterReadOnly(IKvox::ParameterId id, int element) const;
  virtual uint32_t getDefaultBlockLength() const;
  virtual void ProcessBlockBegin();  // RT: brackets the processing of a block for the statistics
  virtual void ProcessBlockEnd();    // RT
  virtual ~KvoxProcessor();

  /// Appends the lines of the processor-info command.
  virtual void Info(std::vector<std::string>& lines) const;
  virtual void SetInput(const std::shared_ptr<AudioEndpoint>& input);
  virtual void SetOutput(const std::shared_ptr<AudioEndpoint>& output);
  /// Restarts the statistics when enabling. Kinds set the enabled flag themselves.
  virtual int32_t Enable(bool enable);
  virtual bool IsEnabled() const;
  /// RT: one block of `in_size` bytes. `out` may be null; else it holds `out_size` zero bytes.
  virtual int32_t ProcessBlock(const void* in, size_t in_size, void* out, size_t out_size);
  /// 0, 1 when stored but refused by the tap point, 3 unknown, 4 bad value, 6 read-only.
  virtual int32_t SetParameter(IKvox::ParameterId id, int element, const IKvox::ParamValue& value);
  /// 0, or 3 for an unknown parameter.
  virtual int32_t GetParameter(IKvox::ParameterId id, int element, IKvox::ParamValue* value) const;
  virtual uint32_t GetBlockLength() const;  // frames
  virtual uint32_t GetSampleRate() const;   // Hz
  virtual uint32_t GetBitsPerSample() const;
  virtual Kvox::DataFormat GetDataFormat() const;
  virtual uint32_t GetChannels() const;
  virtual uint32_t GetNonInterleavedSamples() const;  // 0 and 1: interleaved
  virtual int32_t SetBlockLength(uint32_t frames);
  virtual int32_t SetSampleRate(uint32_t rate);
  virtual int32_t SetBitsPerSample(uint32_t bits);
  virtual int32_t SetDataFormat(Kvox::DataFormat format);
  virtual int32_t SetChannels(uint32_t channels);
  virtual int32_t SetNonInterleavedSamples(uint32_t samples);
  /// Applies a format field by field and stops at the first one the kind refuses.
  virtual int32_t SetFormat(const KvoxTapFormat& format);
  /// Takes a block from a client. Kinds that have no use for it accept and ignore it.
  virtual int32_t SendAudio(const IKvox::AudioPacket& packet);
  /// Hands the processor's audio to `callback` from now on, in place of the one before; null takes
  /// that away. Its death removes it again.
  virtual void RegisterReceiveAudioCallback(
      const std::shared_ptr<IKvox::IReceiveAudioCallback>& callback);
  virtual void onCallbackDeath();
  virtual void onCallbackUnlinked();
  virtual int32_t SetStatsMaxBufferSize(uint32_t entries);
  uint32_t stats_entries() const { return stats_.buffer_size(); }
  virtual int32_t GetStats(IKvox::ProcessorStats* stats);
  virtual int32_t ResetStats();

  /// RT: one block for the I/O thread; `out` is null when no enabled inject buffer takes it. The
  /// default runs ProcessBlock on the whole output area.
  virtual BlockResult ProcessPacket(const Block& block, OutputArea* out);

  /// What the kind's blocks work with; null for none. After it changed, call RefreshFeed().
  virtual std::shared_ptr<const BlockState> block_state() const { return nullptr; }

  /// Unregisters from both buffers. To be called before the last owner lets go.
  void Disconnect();

  /// Set by the tap-out buffer that has the processor registered, for as long as it has. The input
  /// is what clients are shown; this is what audio really comes from.
  void SetFeed(const std::shared_ptr<AudioEndpoint>& feed);
  std::shared_ptr<AudioEndpoint> feed() const;

  /// What a buffer does that lets go of the processor: takes it away as feed and input, or as
  /// output, unless another buffer is that already.
  void ClearFeedAndInput(const AudioEndpoint* buffer);
  void ClearOutput(const AudioEndpoint* buffer);

  /// Tells the feeding buffer that the processor's output leads to another place now.
  void RefreshFeed();

  FourCc id() const { return id_; }
  FourCc type() const { return type_; }
  const char* id_text() const { return id_text_.data(); }
  const char* type_text() const { return type_text_.data(); }

  /// The buffers the processor is tied to; null for none.
  std::shared_ptr<AudioEndpoint> input() const;
  std::shared_ptr<AudioEndpoint> output() const;

  bool HasReceiveAudioCallback() const;

  /// A death notice for registration number `serial`; passed by when it has been replaced. Else
  /// the callback is dropped, and the kind hears of it by onCallbackDeath().
  void CallbackDied(uint64_t serial);

 protected:
  std::shared_ptr<IKvox::IReceiveAudioCallback> receive_audio_callback() const;
  void SetEnabled(bool enabled) { enabled_.store(enabled, std::memory_order_relaxed); }

 private:
  IKvox::ParamValue AudioFormatElement(int element) const;
  int32_t StoreBlockSize(IKvox::ParameterId id, uint32_t frames);

  const FourCc id_;
  const FourCc type_;
  const FourCcText id_text_;
  const FourCcText type_text_;

  // Settings: written by commands, read by anyone. Relaxed: each stands for itself.
  std::atomic<bool> enabled_ = false;
  std::atomic<bool> passthrough_mode_ = false;
  std::atomic<bool> test_mode_ = false;
  std::atomic<uint32_t> blocks_processed_ = 0;
  std::atomic<uint32_t> block_length_ = kDefaultBlockLength;
  std::atomic<uint32_t> sample_rate_ = 48000;
  std::atomic<uint32_t> bits_per_sample_ = 32;
  std::atomic<Kvox::DataFormat> data_format_ = Kvox::DataFormat::INT;
  std::atomic<uint32_t> channels_ = 1;
  std::atomic<uint32_t> noninterleaved_samples_ = 0;
  std::atomic<bool> little_endian_ = true;
  std::atomic<uint32_t> jitter_buffer_ = 0;

  KvoxProcessorStats stats_;
  const ndk::ScopedAIBinder_DeathRecipient death_recipient_;

  mutable Mutex links_mutex_;  // a leaf lock
  std::weak_ptr<AudioEndpoint> input_ GUARDED_BY(links_mutex_);
  std::weak_ptr<AudioEndpoint> feed_ GUARDED_BY(links_mutex_);
  std::weak_ptr<AudioEndpoint> output_ GUARDED_BY(links_mutex_);
  std::shared_ptr<IKvox::IReceiveAudioCallback> receive_audio_callback_ GUARDED_BY(links_mutex_);
  ndk::SpAIBinder linked_binder_ GUARDED_BY(links_mutex_);  // the callback's
  uint64_t callback_serial_ GUARDED_BY(links_mutex_) = 0;
};

}  // namespace kvox
