#include "buffer/wav_capture.h"

#include <cerrno>
#include <chrono>
#include <thread>
#include <utility>

#include "buffer/device_io.h"
#include "kvox/common/fixed_text.h"
#include "kvox/common/log.h"

namespace kvox {
namespace {

/// Holds 10 s of 48 kHz stereo in 16 bits, and more than a second of eight channels in 32.
constexpr uint32_t kRingSize = 2u << 20;

/// How often the writer checks the ring, unless it fills quickly. So a stream at real-time speed
/// needs no wake-ups.
constexpr auto kLookIntoRing = std::chrono::milliseconds(50);

/// How much may be behind the samples that the header counts, in bytes.
constexpr size_t kHeaderInterval = 64 << 10;

constexpr auto kPushPoll = std::chrono::microseconds(100);

}  // namespace

WavCapture::Session::Session(const std::string& buffer, const std::string& file_path,
                             std::unique_ptr<CaptureFile> file)
    : path(file_path),
      ring(std::make_unique<PacketRing>(kRingSize)),
      wav(buffer, std::move(file)) {}

WavCapture::WavCapture(std::string buffer, ThreadGroup& threads, CaptureFileOpener open,
                       std::chrono::milliseconds timeout)
    : buffer_(std::move(buffer)), threads_(threads), open_(std::move(open)), timeout_(timeout) {}

int32_t WavCapture::Start(const std::string& file, std::string& message) {
  message = FormatText<256>("%s %s buffer %s", "CaptureStart", buffer_.c_str(), file.c_str());
  MutexLock lock(mutex_);
  if (recording()) {
    message += ": Error, already enabled";
    return -1;
  }
  if (!StopWriter()) {  // of a capture that ended by itself
    message += ": Error, the last file is still being written";
    return -1;
  }
  std::string why;
  auto opened = open_(file, why);
  if (!opened) {
    SetState(file, why);
    message += " failed";
    return -1;
  }
  CaptureFile& present = *opened;  // not written before there are packets
  session_ = std::make_unique<Session>(buffer_, file, std::move(opened));
  counter_ = {};
  samples_.store(0, std::memory_order_relaxed);
  dropped_.store(0, std::memory_order_relaxed);
  if (!StartWriter()) {
    session_.reset();
    LogError("%s: no thread to write the capture into %s with; end other captures first",
             buffer_.c_str(), file.c_str());
    SetState(file, "there is no thread for it; end other captures first");
    message += " failed";
    return -1;
  }
  if (!present.CutTo(0)) {
    LogError("Capture file %s cannot be emptied: %s; name another one", file.c_str(),
             ErrorText(errno).c_str());
    SetState(file, "it cannot be emptied");
    if (StopWriter()) session_.reset();
    message += " failed";
    return -1;
  }
  SetState(file, "");
  // Release: pairs with the acquire in Record and hands over the session.
  on_.store(true, std::memory_order_release);
  return 0;
}

int32_t WavCapture::Stop(std::string& message) {
  MutexLock lock(mutex_);
  message = "CaptureStop " + buffer_ + " buffer";
  if (!StopWriter()) {
    message += " " + session_->path + ": Error, the file is still being written";
    return -1;
  }
  const auto session = std::move(session_);
  if (!session || !session->whole) {
    message += ": Capture not started";
    return -1;
  }
  SetState("", "");
  message += " " + session->path + ", " + std::to_string(session->wav.samples()) + " samples";
  return 0;
}

WavCapture::State WavCapture::state() const {
  MutexLock lock(state_mutex_);
  return state_;
}

void WavCapture::SetState(const std::string& file, const std::string& trouble) {
  MutexLock lock(state_mutex_);
  state_ = {file, trouble};
}

bool WavCapture::StartWriter() {
  SetWriting(true);
  const auto run = [self = shared_from_this()] { self->Run(*self->session_); };
  if (threads_.Start(("wav-" + buffer_).c_str(), run)) return true;
  SetWriting(false);
  return false;
}

/// Ends the recording, if there is one, and waits for its thread. False if that takes too long; the
/// session then still belongs to the writer.
bool WavCapture::StopWriter() {
  EndRecording();
  const auto deadline = std::chrono::steady_clock::now() + timeout_;
  {
    MutexLock lock(writing_mutex_);
    while (writing_ && writing_changed_.WaitUntil(writing_mutex_, deadline)) {
    }
    if (!writing_) return true;
  }
  LogError(
      "%s: the capture file %s takes no more; stop this buffer's capture again when its disk is "
      "well",
      buffer_.c_str(), session_->path.c_str());
  return false;
}

void WavCapture::EndRecording() {
  on_.store(false, std::memory_order_relaxed);
  if (!session_) return;
  // Release: hands the session back; Start may have worked on its file.
  session_->ending.store(true, std::memory_order_release);
  session_->wake.Signal();
}

void WavCapture::SetWriting(bool writing) {
  MutexLock lock(writing_mutex_);
  writing_ = writing;
  writing_changed_.NotifyAll();
}

void WavCapture::Record(const KvoxPacketHeader& header, std::span<const std::byte> payload) {
  if (!on_.load(std::memory_order_relaxed)) return;
  // Acquire: pairs with the release of the last user of the producer's side.
  if (pushing_.exchange(true, std::memory_order_acquire)) {
    if (on_.load(std::memory_order_relaxed)) dropped_.fetch_add(1, std::memory_order_relaxed);
    return;
  }
  // Checked again: KeepOthersOut may have run in between. Acquire: pairs with Start.
  if (on_.load(std::memory_order_acquire)) {
    PacketRing& ring = *session_->ring;
    const bool was_half_full = ring.HalfFull();
    if (ring.Push(header, payload)) {
      samples_.fetch_add(counter_.Count(header), std::memory_order_relaxed);
    } else {
      dropped_.fetch_add(1, std::memory_order_relaxed);
    }
    if (!was_half_full && ring.HalfFull()) session_->wake.Signal();
  }
  pushing_.store(false, std::memory_order_release);
}

/// Once recording is off: returns when no thread uses the ring any more.
void WavCapture::KeepOthersOut() {
  // Acquire and release: pair with Record, which then sees that on_ is off.
  while (pushing_.exchange(true, std::memory_order_acq_rel)) std::this_thread::sleep_for(kPushPoll);
  pushing_.store(false, std::memory_order_release);
}

void WavCapture::Run(Session& session) {
  const auto payload_area = std::make_unique<std::byte[]>(kPacketMaxPayload);
  const std::span<std::byte> area(payload_area.get(), kPacketMaxPayload);
  while (session.wav.on() && !session.ending.load(std::memory_order_acquire)) {
    SystemDeviceIo().Wait(-1, DeviceIo::Direction::kRead, session.wake.fd(), kLookIntoRing);
    session.wake.Clear();
    WriteQueued(session, area);
  }
  on_.store(false, std::memory_order_relaxed);
  KeepOthersOut();
  WriteQueued(session, area);
  session.ring.reset();
  ReportDrops();
  if (session.wav.on()) {
    session.wav.endCaptureWav();
    session.whole = true;
  } else {
    SetState(session.path, session.wav.trouble());
  }
  SetWriting(false);
}

void WavCapture::ReportDrops() const {
  const uint32_t dropped = dropped_.load(std::memory_order_relaxed);
  if (dropped == 0) return;
  LogWarning(
      "%s: %u packets are missing from the capture: the file could not be written fast "
      "enough",
      buffer_.c_str(), dropped);
}

void WavCapture::WriteQueued(Session& session, std::span<std::byte> payload_area) {
  KvoxPacketHeader header;
  std::span<const std::byte> payload;
  size_t written = 0;
  while (session.wav.on() && session.ring->Pop(header, payload_area, payload)) {
    session.wav.writeCaptureWav(header, payload);
    written += payload.size();
    if (written < kHeaderInterval) continue;
    session.wav.UpdateHeader();
    written = 0;
  }
  session.wav.UpdateHeader();
}

}  // namespace kvox
