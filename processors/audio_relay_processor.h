// Relays audio between the co-processor and a client: passes the tap's blocks to the client's
// callback, and the blocks that the client sends to the co-processor.
//
// The id selects a role. "art0" and "art1" relay telephony: the client gets and sends mono blocks
// of 16-bit samples, and what it sent goes out only with a block it has accepted. "armd" relays
// media playback; this and every other id gives the client interleaved blocks of the tap's format,
// and takes such blocks from it.
//
// Commands replace a RelayState as a whole; the I/O thread gets it with its routes. No lock is held
// while the client is called; see RelayClient for which thread waits.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>

#include "kvox/common/mutex.h"
#include "processors/kvox_processor.h"
#include "processors/processor_host.h"
#include "processors/relay_client.h"

namespace kvox {

struct RelayStream;
struct RelayState;

/// Counts blocks for a report at most once a second. One thread at a time.
class BlockCounter {
 public:
  void Count() { ++count_; }

  /// RT: how many to report now; 0 if there are none or it is too early.
  uint32_t TakeDue(uint64_t now_ns);

  /// How many have not been reported.
  uint32_t rest() const { return count_; }

 private:
  uint32_t count_ = 0;
  uint64_t reported_ns_ = 0;
};

class AudioRelayProcessor : public KvoxProcessor {
 public:
  static constexpr FourCc kType = MakeFourCc("arel");

  /// A relay with the defaults of its role.
  static std::shared_ptr<AudioRelayProcessor> Create(FourCc id, ProcessorHost& host);

  AudioRelayProcessor(FourCc id, ProcessorHost& host);
  ~AudioRelayProcessor() override;

  int32_t Enable(bool enable) override;
  /// A block length that changes restarts an enabled relay.
  int32_t SetParameter(IKvox::ParameterId id, int element, const IKvox::ParamValue& value,
                       const TapForward& forward) override;
  int32_t GetParameter(IKvox::ParameterId id, int element, IKvox::ParamValue* value) const override;
  /// A tap of another shape restarts an enabled relay that is not telephony.
  int32_t SetFormat(const KvoxTapFormat& format) override;
  /// Takes one whole block of the relay's format, which is sent with the next block of the tap.
  /// Replaces a block that still waits.
  int32_t SendAudio(const IKvox::AudioPacket& packet) override;
  void RegisterReceiveAudioCallback(
      const std::shared_ptr<IKvox::IReceiveAudioCallback>& callback) override;
  BlockResult ProcessBlock(const Block& block, OutputArea* out) override;
  std::shared_ptr<const BlockState> block_state() const override;

 protected:
  /// Telephony takes mono and stereo taps and stays mono.
  bool SetFormatField(FormatField field, uint32_t value) override;
  void OnCallbackDied() override;

 private:
  bool IsTelephony() const;
  std::shared_ptr<const RelayState> state() const;
  IKvox::AudioPacket Shape() const;
  int32_t startProcessor() REQUIRES(processor_mutex_);
  void SetStream(std::shared_ptr<RelayStream> stream);
  void StateChanged() { host_.BlockStateChanged(*this); }
  void FollowCallback(uint64_t owner);

  // RT.
  int32_t ProcessBlockForTelephony(const Block& block, const RelayState& state, OutputArea* out,
                                   BlockResult& result);
  int32_t ProcessBlockGeneric(const Block& block, const RelayState& state, OutputArea* out,
                              BlockResult& result);
  void Note(Delivery delivery, const Block& block, BlockResult& result);
  void ReportMissed(uint32_t blocks) const;
  void ReportCut(uint32_t blocks) const;

  ProcessorHost& host_;

  Mutex processor_mutex_;                 // serialises switching
  std::atomic<bool> restarting_ = false;  // enabled, but drops blocks

  Mutex registration_mutex_ ACQUIRED_BEFORE(audio_mutex_);    // serialises changes of the client
  size_t client_thread_ GUARDED_BY(registration_mutex_) = 0;  // of the latest client

  mutable Mutex audio_mutex_;  // a leaf lock
  std::shared_ptr<const RelayState> state_ GUARDED_BY(audio_mutex_);

  // The I/O thread's.
  BlockCounter missed_;
  BlockCounter cut_;
};

}  // namespace kvox
