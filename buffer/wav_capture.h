// Records the packets of a buffer in a WAV file (wav_file.h) without disturbing them: the packet
// path copies them into a ring, and a thread of the capture's own brings them into the file.
//
// A packet that finds the ring full is missing from the file. It is counted, and one warning tells
// the count when the capture has ended.
//
// What ends a capture: Stop and a change of the stream's format complete the file. A write that
// fails leaves it as it stands. So does the end of this object, after all that was recorded is in
// the file; the header then stays 44 zero bytes.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <thread>

#include "buffer/capture_file.h"
#include "buffer/packet_recorder.h"
#include "buffer/packet_ring.h"
#include "buffer/wav_file.h"
#include "kvox/common/mutex.h"
#include "kvox/common/wake_event.h"

namespace kvox {

class WavCapture final : public PacketRecorder {
 public:
  /// `buffer` is the name of the buffer, for messages.
  explicit WavCapture(std::string buffer, CaptureFileOpener open = OpenCaptureFile);

  /// Waits until what is recorded is in the file. No thread may record any more.
  ~WavCapture() override;

  /// Starts a capture into the file of that path. 0, or -1 when one runs already or the file cannot
  /// be opened. Service threads.
  int32_t Start(const std::string& file, std::string& message);

  /// Ends the capture and answers when everything recorded up to now is in the file: a slow disk
  /// takes its time for the rest of the ring, and a write that fails ends it. 0, or -1 when no
  /// capture was on, or is not any more once the rest is written. Service threads.
  int32_t Stop(std::string& message);

  // RT. Buffers have one I/O thread at a time. Two that met here nevertheless, while a buffer is
  // being tied anew, would cost a packet in the file and nothing else.
  void Record(const KvoxPacketHeader& header, std::span<const std::byte> payload) override;
  bool recording() const override { return on_.load(std::memory_order_relaxed); }
  uint32_t samples() const override { return samples_.load(std::memory_order_relaxed); }

 private:
  /// What exists while a capture runs. `wav` is the writer's until its thread has ended.
  struct Session {
    Session(const std::string& buffer, std::unique_ptr<CaptureFile> file);

    std::unique_ptr<PacketRing> ring;
    WavFile wav;
    WakeEvent wake;
    std::atomic<bool> ending = false;
    std::thread writer;
  };

  void StopWriter() REQUIRES(mutex_);
  void KeepOthersOut();

  // The writer's thread.
  void Run(Session& session);
  void WriteQueued(Session& session, std::span<std::byte> payload_area);

  const std::string buffer_;
  const CaptureFileOpener open_;

  std::atomic<bool> on_ = false;
  std::atomic<bool> pushing_ = false;  // a thread is using the ring's producer side
  std::atomic<uint32_t> samples_ = 0;
  std::atomic<uint32_t> dropped_ = 0;

  /// Starting and stopping take turns, also while one waits for the file. A leaf lock.
  Mutex mutex_;
  std::string file_ GUARDED_BY(mutex_);
  /// Changes while on_ is off and is read while it is on, so the packet path needs no lock.
  std::unique_ptr<Session> session_;
};

}  // namespace kvox
