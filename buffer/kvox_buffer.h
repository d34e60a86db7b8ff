// One data device of the co-processor. A tap-out buffer reads audio and hands every block to the
// processors registered as its outputs, on an I/O thread of its own; an inject buffer is written by
// the one processor registered as its input and has no thread.
//
// Locking: one mutex a buffer. Switching on or off runs outside it and is exclusive by itself, so a
// buffer whose device takes seconds to open can still be looked at, tied and switched off.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "buffer/device_io.h"
#include "buffer/inject_port.h"
#include "buffer/route_table.h"
#include "buffer/rx_format.h"
#include "buffer/tap_reader.h"
#include "buffer/wav_capture.h"
#include "kvox/common/log.h"
#include "kvox/common/mutex.h"
#include "kvox/common/tap_format.h"
#include "kvox/common/wake_event.h"
#include "processors/audio_endpoint.h"
#include "processors/kvox_processor.h"
#include "processors/thread_reaper.h"

namespace kvox {

class KvoxBuffer;

/// The settings of tap points, as far as buffers pass them on. Status 0, also when no tap point is
/// known to be bound to the buffer; 1 when the co-processor refused.
class TapControl {
 public:
  virtual ~TapControl() = default;
  virtual int32_t SetTapBlockLength(const KvoxBuffer& buffer, uint32_t frames) = 0;
  virtual int32_t SetTapJitterBuffer(const KvoxBuffer& buffer, uint32_t size) = 0;
};

/// What all buffers share. Everything outlives them.
struct BufferEnvironment {
  DeviceIo& io;
  LogTarget& io_log;  // for I/O threads; never waits
  TapControl& taps;
  ThreadReaper& capture_threads;
};

/// Status results are 0 for success and -1 for failure. Any thread but an I/O thread may call.
class KvoxBuffer final : public AudioEndpoint, public std::enable_shared_from_this<KvoxBuffer> {
 public:
  KvoxBuffer(std::string name, std::string device_path, uint32_t index, bool is_tapout,
             const BufferEnvironment& environment);
  ~KvoxBuffer() override;
  KvoxBuffer(const KvoxBuffer&) = delete;
  KvoxBuffer& operator=(const KvoxBuffer&) = delete;

  /// The buffer that an endpoint is: in the daemon there are no others.
  static std::shared_ptr<KvoxBuffer> From(const std::shared_ptr<AudioEndpoint>& endpoint) {
    return std::static_pointer_cast<KvoxBuffer>(endpoint);
  }

  const std::string& name() const override { return name_; }
  bool is_tapout() const override { return is_tapout_; }
  uint32_t index() const { return index_; }
  bool IsEnabled() const { return enabled_.load(std::memory_order_relaxed); }

  /// Opens or closes the device and starts or ends the I/O thread. Opening is tried five times, a
  /// second apart; disabling or dropping the buffer ends that.
  int32_t Enable(bool enable);

  enum class Try {
    kOn,
    kAgain,   // the device did not open; the next try is due after the pause
    kBusy,    // another thread is trying; the same try is due after the pause
    kFailed,  // for good
  };
  static constexpr auto kOpenRetryPause = std::chrono::seconds(1);

  /// One of the tries that Enable(true) makes, for a caller that has more to do than to wait for
  /// the next one. The first is number 0.
  Try TryEnable(unsigned number);

  /// What a buffer does before it is gone: switches off, and lets go of its processors.
  void Drop();

  /// Ends an Enable that waits for its device; the buffer cannot be enabled any more.
  void AbandonOpening();

  /// Sets the format of the arriving audio and applies it to every output, up to the first one that
  /// refuses, whose status it answers.
  int32_t SetRxFormat(const KvoxTapFormat& format);
  KvoxTapFormat RxFormat() const override { return rx_format_.Get().format; }

  /// Also applies the format of the arriving audio, once there is one.
  int32_t RegisterOutput(const std::shared_ptr<KvoxProcessor>& processor);
  int32_t UnregisterOutput(KvoxProcessor* processor) override;
  int32_t RegisterInput(const std::shared_ptr<KvoxProcessor>& processor);
  void UnregisterInput() override;

  /// Appends the outputs in the order of their addresses and answers how many there are.
  size_t GetOutputs(std::vector<std::shared_ptr<KvoxProcessor>>& outputs) const;
  unsigned CountEnabledOutputs() const;
  /// Appends the inject buffers that the outputs write, in the outputs' order.
  void AppendWrittenBuffers(std::vector<std::shared_ptr<KvoxBuffer>>& buffers) const;
  std::shared_ptr<KvoxProcessor> GetInput() const;
  /// Id texts, comma-separated; "-" for none.
  std::string GetOutputsAsString() const;
  std::string GetInputAsString() const;

  void RefreshRoutes() override;
  int32_t ForwardBlockLength(uint32_t frames) override;
  int32_t ForwardJitterBuffer(uint32_t size) override;

  /// Records the packets that pass in a WAV file, whether the buffer is enabled or not yet: see
  /// WavCapture::Start and Stop. Beside these only the stream or a failing write end a capture; a
  /// buffer that goes leaves the file without its header.
  int32_t CaptureStart(const std::string& file, std::string& message) {
    return capture_->Start(file, message);
  }
  int32_t CaptureStop(std::string& message) { return capture_->Stop(message); }
  bool IsCapturing() const { return capture_->recording(); }

  /// Logs the work area (64 KiB) as 2048 lines of words. The caller sees to it that nobody ties
  /// buffers and processors meanwhile.
  void DumpBuffer();

 private:
  enum class Switch { kGo, kAlreadyThere, kBusy, kRefused };

  Switch BeginSwitching(bool enable);
  Switch BeginTry(unsigned number);
  Switch BeginInTurn(bool enable) REQUIRES(mutex_);
  void EndSwitching();
  bool EnableDevice(int fd);
  int OpenWithRetries();
  int OpenDevice() const;
  bool AnotherTry(unsigned number, int fd, int error) const;
  bool WaitBeforeRetry();
  void DisableDevice();
  std::shared_ptr<InjectPort> SwapPort(std::shared_ptr<InjectPort> port);
  std::shared_ptr<InjectPort> port() const;
  void ReplaceInput(const std::shared_ptr<KvoxProcessor>& processor);
  void ApplyRxFormat(KvoxProcessor& processor);
  void PublishRoutes() REQUIRES(mutex_);
  bool CopyWorkArea(InjectPort* port, std::vector<std::byte>& area);

  const std::string name_;
  const std::string device_path_;
  const uint32_t index_;
  const bool is_tapout_;
  const BufferEnvironment environment_;
  const std::shared_ptr<WavCapture> capture_;
  WakeEvent wake_;
  RxFormatCell rx_format_;
  RoutePublisher routes_;
  std::atomic<bool> enabled_ = false;

  /// Held from a look at the RX format until processors have it, so that an older format never
  /// comes after a newer one. Taken before the locks of processors.
  Mutex format_mutex_ ACQUIRED_BEFORE(mutex_);

  mutable Mutex mutex_;
  CondVar changed_;
  bool switching_ GUARDED_BY(mutex_) = false;    // one thread has reader_ to itself
  bool opening_ GUARDED_BY(mutex_) = false;      // and that may take seconds
  int disables_waiting_ GUARDED_BY(mutex_) = 0;  // for their turn to switch
  bool dropped_ GUARDED_BY(mutex_) = false;      // cannot be enabled any more
  bool let_go_ GUARDED_BY(mutex_) = false;       // of the processors
  std::set<std::shared_ptr<KvoxProcessor>> outputs_ GUARDED_BY(mutex_);
  std::shared_ptr<KvoxProcessor> input_ GUARDED_BY(mutex_);

  std::unique_ptr<TapReader> reader_;  // belongs to the thread that is switching

  mutable Mutex port_mutex_;  // a leaf lock
  std::shared_ptr<InjectPort> port_ GUARDED_BY(port_mutex_);
};

}  // namespace kvox
