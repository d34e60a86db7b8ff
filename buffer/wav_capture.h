// Records the packets of a buffer in a WAV file (wav_file.h) without delaying them: the packet path
// copies them into a ring, and the capture's own thread writes them to the file.
//
// If the ring is full, the packet is missing from the file. Such packets are counted, and a warning
// has the count when the capture has ended.
//
// However a capture ends, its file is whole: the header is kept up to date while it grows.
#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>

#include "buffer/capture_file.h"
#include "buffer/packet_recorder.h"
#include "buffer/packet_ring.h"
#include "buffer/wav_file.h"
#include "kvox/common/mutex.h"
#include "kvox/common/thread_group.h"
#include "kvox/common/wake_event.h"

namespace kvox {

/// Owned by std::shared_ptr; the writer thread is one of the owners.
class WavCapture final : public PacketRecorder, public std::enable_shared_from_this<WavCapture> {
 public:
  /// How long a command waits for the file: enough to write a full ring at 35 KB/s.
  static constexpr std::chrono::milliseconds kTimeout = std::chrono::seconds(60);

  /// `buffer` is the name of the buffer, for messages. `threads` outlives the object.
  WavCapture(std::string buffer, ThreadGroup& threads, CaptureFileOpener open = OpenCaptureFile,
             std::chrono::milliseconds timeout = kTimeout);

  /// Starts a capture into the file at that path. 0, or -1 if one is running, the file cannot be
  /// opened, there is no thread to write it or the previous file is not finished. Service threads.
  int32_t Start(const std::string& file, std::string& message);

  /// Ends the capture and returns when everything recorded up to now is in the file, with its
  /// header. 0, or -1 if no capture was on, a write failed, or the rest was not written in time:
  /// then the thread continues, and another Stop returns the result. Service threads.
  int32_t Stop(std::string& message);

  /// Of the capture that runs, or of the last one when it failed.
  struct State {
    std::string file = {};     // "" when there is neither
    std::string trouble = {};  // why it could not begin, or ended by itself
  };
  /// Service threads; does not wait for the file.
  State state() const EXCLUDES(state_mutex_);

  /// Called when the buffer is destroyed: ends the capture without waiting for it. The thread
  /// finishes the file. No other function may be called afterwards.
  void Abandon() { EndRecording(); }

  // RT. A buffer has one I/O thread at a time. If two ever meet here, the file loses a packet.
  void Record(const KvoxPacketHeader& header, std::span<const std::byte> payload) override;
  bool recording() const override { return on_.load(std::memory_order_relaxed); }
  uint32_t samples() const override { return samples_.load(std::memory_order_relaxed); }

 private:
  /// The state of a running capture. `wav` belongs to the writer until writing_ is false.
  struct Session {
    Session(const std::string& buffer, const std::string& path, std::unique_ptr<CaptureFile> file);

    const std::string path;
    std::unique_ptr<PacketRing> ring;
    WavFile wav;
    WakeEvent wake;
    std::atomic<bool> ending = false;
    bool whole = false;  // it ended properly; belongs to the writer like `wav`
  };

  bool StartWriter() REQUIRES(mutex_);
  bool StopWriter() REQUIRES(mutex_);
  void EndRecording();
  void KeepOthersOut();
  void SetWriting(bool writing) EXCLUDES(writing_mutex_);
  void SetState(const std::string& file, const std::string& trouble) EXCLUDES(state_mutex_);

  // The writer's thread.
  void Run(Session& session);
  void WriteQueued(Session& session, std::span<std::byte> payload_area);
  void ReportDrops() const;

  const std::string buffer_;
  ThreadGroup& threads_;
  const CaptureFileOpener open_;
  const std::chrono::milliseconds timeout_;

  std::atomic<bool> on_ = false;
  std::atomic<bool> pushing_ = false;  // a thread is using the ring's producer side
  SampleCounter counter_;              // belongs to that thread
  std::atomic<uint32_t> samples_ = 0;  // recorded, whether written yet or not
  std::atomic<uint32_t> dropped_ = 0;

  /// Starting and stopping take turns, also while one waits for the file.
  Mutex mutex_;
  /// Changes while there is no writer and on_ is off, and is read while on_ is on, so the packet
  /// path needs no lock.
  std::unique_ptr<Session> session_;

  Mutex writing_mutex_ ACQUIRED_AFTER(mutex_);  // a leaf lock
  CondVar writing_changed_;
  bool writing_ GUARDED_BY(writing_mutex_) = false;  // a writer uses session_

  mutable Mutex state_mutex_;  // a leaf lock
  State state_ GUARDED_BY(state_mutex_);
};

}  // namespace kvox
