// Records the packets of a buffer in a WAV file (wav_file.h) without disturbing them: the packet
// path copies them into a ring, and a thread of the capture's own brings them into the file.
//
// A packet that finds the ring full is missing from the file. Such packets are counted, and one
// warning has the count when the capture has ended.
//
// A capture ends with a complete file by Stop, or when the stream's format changes. A write that
// fails, and Abandon, leave the file as it is. Abandon waits for nothing: packets that are not in
// the file yet are counted as missing, and the header stays 44 zero bytes.
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

/// Owned by std::shared_ptr; the thread that writes a file is an owner.
class WavCapture final : public PacketRecorder, public std::enable_shared_from_this<WavCapture> {
 public:
  /// How long a command waits for a file: enough to write a full ring at 35 KB/s.
  static constexpr std::chrono::milliseconds kPatience = std::chrono::seconds(60);

  /// `buffer` is the name of the buffer, for messages. `threads` outlives the object.
  WavCapture(std::string buffer, ThreadGroup& threads, CaptureFileOpener open = OpenCaptureFile,
             std::chrono::milliseconds patience = kPatience);

  /// Starts a capture into the file of that path. 0, or -1 when one runs already, the file cannot
  /// be opened, there is no thread to write it or the last one's file is not done. Service threads.
  int32_t Start(const std::string& file, std::string& message);

  /// Ends the capture and returns when everything recorded up to now is in the file, with its
  /// header. 0, or -1 when no capture was on, or a write failed, or the file did not take the rest
  /// within the patience: then its thread goes on, and another Stop returns the outcome. Service
  /// threads.
  int32_t Stop(std::string& message);

  /// Called when the buffer is destroyed: ends the capture without its header. The thread closes
  /// the file when the write it is in has returned. No other function may be called any more.
  void Abandon();

  // RT. A buffer has one I/O thread at a time. If two ever meet here, a packet is missing from the
  // file.
  void Record(const KvoxPacketHeader& header, std::span<const std::byte> payload) override;
  bool recording() const override { return on_.load(std::memory_order_relaxed); }
  uint32_t samples() const override { return samples_.load(std::memory_order_relaxed); }

 private:
  /// What exists while a capture runs. `wav` is the writer's until writing_ is false.
  struct Session {
    Session(const std::string& buffer, const std::string& path, std::unique_ptr<CaptureFile> file);

    const std::string path;
    std::unique_ptr<PacketRing> ring;
    WavFile wav;
    WakeEvent wake;
    std::atomic<bool> ending = false;
    bool whole = false;  // it ended as it was asked to; the writer's like `wav`
  };

  bool StartWriter() REQUIRES(mutex_);
  bool StopWriter() REQUIRES(mutex_);
  void EndRecording();
  void KeepOthersOut();
  void SetWriting(bool writing) EXCLUDES(writing_mutex_);

  // The writer's thread.
  void Run(Session& session);
  void WriteQueued(Session& session, std::span<std::byte> payload_area);
  void Report(Session& session) const;

  const std::string buffer_;
  ThreadGroup& threads_;
  const CaptureFileOpener open_;
  const std::chrono::milliseconds patience_;

  std::atomic<bool> on_ = false;
  std::atomic<bool> pushing_ = false;  // a thread is using the ring's producer side
  std::atomic<uint32_t> samples_ = 0;
  std::atomic<uint32_t> dropped_ = 0;
  std::atomic<bool> abandoned_ = false;

  /// Starting and stopping take turns, also while one waits for the file.
  Mutex mutex_;
  /// Changes while there is no writer and on_ is off, and is read while on_ is on, so the packet
  /// path needs no lock.
  std::unique_ptr<Session> session_;

  Mutex writing_mutex_ ACQUIRED_AFTER(mutex_);  // a leaf lock
  CondVar writing_changed_;
  bool writing_ GUARDED_BY(writing_mutex_) = false;  // a writer uses session_
};

}  // namespace kvox
