#include "buffer/kvox_buffer.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <utility>

#include "kvox/common/fixed_text.h"

namespace kvox {
namespace {

constexpr unsigned kOpenRetries = 4;

const char* PluralS(size_t count) {
  return count == 1 ? "" : "s";
}

void LogOpenFailed(const std::string& path, int status, int error) {
  LogError("Open %s failed, status %d, errno %d", path.c_str(), status, error);
}

}  // namespace

KvoxBuffer::KvoxBuffer(std::string name, std::string device_path, uint32_t index, bool is_tapout,
                       const BufferEnvironment& environment)
    : name_(std::move(name)),
      device_path_(std::move(device_path)),
      index_(index),
      is_tapout_(is_tapout),
      environment_(environment),
      capture_(std::make_shared<WavCapture>(name_, environment.capture_threads)),
      routes_([this] { wake_.Signal(); }) {}

KvoxBuffer::~KvoxBuffer() {
  Drop();
  capture_->Abandon();
}

int32_t KvoxBuffer::Enable(bool enable) {
  switch (BeginSwitching(enable)) {
    case Switch::kGo:
      break;
    case Switch::kAlreadyThere:
      return 0;
    case Switch::kBusy:  // tries only
    case Switch::kRefused:
      return -1;
  }
  bool switched = true;
  if (enable) {
    const int fd = OpenWithRetries();
    switched = fd >= 0 && EnableDevice(fd);
  } else {
    DisableDevice();
  }
  EndSwitching();
  return switched ? 0 : -1;
}

KvoxBuffer::Try KvoxBuffer::TryEnable(unsigned number) {
  switch (BeginTry(number)) {
    case Switch::kGo:
      break;
    case Switch::kAlreadyThere:
      return Try::kOn;
    case Switch::kBusy:
      return Try::kBusy;
    case Switch::kRefused:
      return Try::kFailed;
  }
  const int fd = OpenDevice();
  const int error = errno;
  Try outcome = Try::kFailed;
  if (fd >= 0) {
    if (EnableDevice(fd)) outcome = Try::kOn;
  } else if (AnotherTry(number, fd, error)) {
    outcome = Try::kAgain;
  }
  EndSwitching();
  return outcome;
}

/// Waits for the turn to switch and looks whether there is anything to do. A thread that comes to
/// disable ends the wait of one that is opening.
KvoxBuffer::Switch KvoxBuffer::BeginSwitching(bool enable) {
  MutexLock lock(mutex_);
  if (!enable) ++disables_waiting_;
  changed_.NotifyAll();
  while (switching_) changed_.Wait(mutex_);
  if (!enable) --disables_waiting_;
  const Switch answer = BeginInTurn(enable);
  opening_ = answer == Switch::kGo && enable;
  return answer;
}

/// Waits for its turn, but not behind a thread that makes pauses.
KvoxBuffer::Switch KvoxBuffer::BeginTry(unsigned number) {
  MutexLock lock(mutex_);
  while (switching_) {
    if (opening_) return Switch::kBusy;
    changed_.Wait(mutex_);
  }
  if (number == 0) return BeginInTurn(true);
  if (IsEnabled()) return Switch::kAlreadyThere;
  if (dropped_) return Switch::kRefused;
  switching_ = true;
  return Switch::kGo;
}

KvoxBuffer::Switch KvoxBuffer::BeginInTurn(bool enable) {
  if (enable && IsEnabled()) {
    LogInfo("Enable buffer %s: already enabled", name_.c_str());
    return Switch::kAlreadyThere;
  }
  if (!enable && !IsEnabled()) {
    LogInfo("Disable buffer %s: already disabled", name_.c_str());
    return Switch::kAlreadyThere;
  }
  if (enable && dropped_) return Switch::kRefused;
  switching_ = true;
  if (!enable) {
    LogInfo("Disable buffer %s", name_.c_str());
  } else if (is_tapout_) {
    LogInfo("Enable buffer %s (%u processor%s connected), I/O thread start", name_.c_str(),
            static_cast<unsigned>(outputs_.size()), PluralS(outputs_.size()));
  } else {
    LogInfo("Enable buffer %s with %u input", name_.c_str(), input_ ? 1u : 0u);
  }
  return Switch::kGo;
}

void KvoxBuffer::EndSwitching() {
  MutexLock lock(mutex_);
  switching_ = false;
  opening_ = false;
  changed_.NotifyAll();
}

int KvoxBuffer::OpenWithRetries() {
  for (unsigned number = 0;; ++number) {
    const int fd = OpenDevice();
    const int error = errno;
    if (fd >= 0 || !AnotherTry(number, fd, error)) return fd;
    if (!WaitBeforeRetry()) {
      LogOpenFailed(device_path_, fd, error);
      return fd;
    }
  }
}

/// After try `number` has failed: tells what comes now, and answers whether that is another one.
bool KvoxBuffer::AnotherTry(unsigned number, int fd, int error) const {
  if (number < kOpenRetries) {
    LogInfo("%s Attempting to reinitialize KVO interface, attempt %u\n", name_.c_str(), number + 1);
    return true;
  }
  LogOpenFailed(device_path_, fd, error);
  return false;
}

int KvoxBuffer::OpenDevice() const {
  const auto direction = is_tapout_ ? DeviceIo::Direction::kRead : DeviceIo::Direction::kWrite;
  const int fd = environment_.io.Open(device_path_.c_str(), direction);
  if (fd < 0) {
    const int error = errno;
    LogError("Error opening %s, status %d (errno %d: %s)\n", device_path_.c_str(), fd, error,
             ErrorText(error).c_str());
    errno = error;
  }
  return fd;
}

/// False when the device is not wanted any more.
bool KvoxBuffer::WaitBeforeRetry() {
  const auto until = std::chrono::steady_clock::now() + kOpenRetryPause;
  MutexLock lock(mutex_);
  while (disables_waiting_ == 0 && !dropped_) {
    if (!changed_.WaitUntil(mutex_, until)) return true;
  }
  return false;
}

/// Takes over `fd`. False when there is no thread to read it.
bool KvoxBuffer::EnableDevice(int fd) {
  if (is_tapout_) {
    {
      MutexLock lock(mutex_);
      rx_format_.Set({});
      PublishRoutes();
    }
    routes_.Settle();
    reader_ = std::make_unique<TapReader>(TapReaderLinks{.name = name_,
                                                         .device_path = device_path_,
                                                         .io = environment_.io,
                                                         .routes = routes_,
                                                         .rx_format = rx_format_,
                                                         .recorder = *capture_,
                                                         .log = environment_.io_log,
                                                         .wake = wake_},
                                          fd);
    if (!reader_->Start()) {
      reader_.reset();
      return false;
    }
    enabled_.store(true, std::memory_order_relaxed);
    return true;
  }
  SwapPort(std::make_shared<InjectPort>(name_, device_path_, environment_.io, *capture_, fd));
  enabled_.store(true, std::memory_order_relaxed);
  if (const auto writer = GetInput()) writer->RefreshFeed();
  return true;
}

void KvoxBuffer::DisableDevice() {
  enabled_.store(false, std::memory_order_relaxed);
  if (is_tapout_) {
    reader_->Stop();
    reader_.reset();
    environment_.io_log.Flush();
    LogInfo("Buffer %s disabled, I/O thread end", name_.c_str());
    return;
  }
  {
    const std::shared_ptr<InjectPort> closing = SwapPort(nullptr);
    if (const auto writer = GetInput()) writer->RefreshFeed();
  }
  LogInfo("Buffer %s disabled", name_.c_str());
}

void KvoxBuffer::AbandonOpening() {
  MutexLock lock(mutex_);
  dropped_ = true;
  changed_.NotifyAll();
}

void KvoxBuffer::Drop() {
  std::set<std::shared_ptr<KvoxProcessor>> outputs;
  AbandonOpening();
  {
    MutexLock lock(mutex_);
    if (let_go_) return;
    let_go_ = true;
    while (switching_) changed_.Wait(mutex_);
  }
  if (IsEnabled()) Enable(false);
  LogInfo("%s %s", name_.c_str(), "UnregisterAllOutputs");
  {
    MutexLock lock(mutex_);
    outputs.swap(outputs_);
    PublishRoutes();
  }
  for (const auto& processor : outputs) processor->ClearFeedAndInput(this);
  routes_.Settle();
  UnregisterInput();
}

std::shared_ptr<InjectPort> KvoxBuffer::SwapPort(std::shared_ptr<InjectPort> port) {
  MutexLock lock(port_mutex_);
  port_.swap(port);
  return port;
}

std::shared_ptr<InjectPort> KvoxBuffer::port() const {
  MutexLock lock(port_mutex_);
  return port_;
}

void KvoxBuffer::DumpBuffer() {
  std::vector<std::byte> area;
  bool copied = false;
  if (is_tapout_) {
    copied = CopyWorkArea(nullptr, area);
  } else if (const std::shared_ptr<InjectPort> open_port = port()) {
    const auto writer = GetInput();
    const auto feed = From(writer ? writer->feed() : nullptr);
    copied = feed ? feed->CopyWorkArea(open_port.get(), area) : open_port->CopyTo(area);
  }
  if (!copied) {
    LogError("%s buffer is null", name_.c_str());
    return;
  }
  constexpr size_t kWordsPerLine = 8;
  const auto* const words = reinterpret_cast<const uint32_t*>(area.data());
  for (size_t at = 0; at < area.size() / sizeof(uint32_t); at += kWordsPerLine) {
    const uint32_t* const w = words + at;
    LogInfo("%08x : %08x %08x %08x %08x %08x %08x %08x %08x", static_cast<unsigned>(at), w[0], w[1],
            w[2], w[3], w[4], w[5], w[6], w[7]);
  }
}

/// Our own area, or that of a port we feed: between two packets while the I/O thread runs, and
/// while it cannot start otherwise.
bool KvoxBuffer::CopyWorkArea(InjectPort* port, std::vector<std::byte>& area) {
  {
    MutexLock lock(mutex_);
    while (switching_) changed_.Wait(mutex_);
    switching_ = true;
  }
  bool copied = false;
  if (reader_) {
    copied = reader_->CopyArea(port, area);
  } else if (port != nullptr) {
    copied = port->CopyTo(area);
  }
  EndSwitching();
  return copied;
}

}  // namespace kvox
