#include "buffer/kvox_buffer.h"

#include <cerrno>
#include <chrono>
#include <utility>

#include "kvox/common/fixed_text.h"

namespace kvox {
namespace {

constexpr unsigned kOpenRetries = 4;

}  // namespace

KvoxBuffer::KvoxBuffer(std::string name, std::string device_path, uint32_t index, bool is_tapout,
                       const BufferEnvironment& environment)
    : name_(std::move(name)),
      device_path_(std::move(device_path)),
      index_(index),
      is_tapout_(is_tapout),
      environment_(environment),
      capture_(std::make_shared<WavCapture>(name_, environment.capture_threads)),
      publisher_([this] { wake_.Signal(); }) {}

KvoxBuffer::~KvoxBuffer() {
  Drop();
  capture_->Abandon();
}

int32_t KvoxBuffer::Enable(bool enable, const StillWanted& still_wanted) {
  switch (BeginSwitching(enable, still_wanted)) {
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
    EndReader();
    const int fd = OpenWithRetries();
    switched = fd >= 0 && EnableDevice(fd);
  } else {
    DisableDevice();
  }
  EndSwitching();
  return switched ? 0 : -1;
}

KvoxBuffer::Try KvoxBuffer::TryEnable(unsigned number, const StillWanted& still_wanted) {
  switch (BeginTry(number, still_wanted)) {
    case Switch::kGo:
      break;
    case Switch::kAlreadyThere:
      return Try::kOn;
    case Switch::kBusy:
      return Try::kBusy;
    case Switch::kRefused:
      return Try::kFailed;
  }
  EndReader();
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
KvoxBuffer::Switch KvoxBuffer::BeginSwitching(bool enable, const StillWanted& still_wanted) {
  MutexLock lock(mutex_);
  if (!enable) ++disables_waiting_;
  changed_.NotifyAll();
  while (switching_) changed_.Wait(mutex_);
  if (!enable) --disables_waiting_;
  if (enable && still_wanted && !still_wanted()) return Switch::kRefused;
  const Switch result = BeginLocked(enable);
  opening_ = result == Switch::kGo && enable;
  return result;
}

/// Waits for its turn, but not for a thread that pauses between its tries.
KvoxBuffer::Switch KvoxBuffer::BeginTry(unsigned number, const StillWanted& still_wanted) {
  MutexLock lock(mutex_);
  while (switching_) {
    if (opening_) return Switch::kBusy;
    changed_.Wait(mutex_);
  }
  if (!still_wanted()) return Switch::kRefused;
  if (number == 0) return BeginLocked(true);
  if (IsEnabled() && !gave_up()) return Switch::kAlreadyThere;
  if (abandoned_) return Switch::kRefused;
  switching_ = true;
  return Switch::kGo;
}

KvoxBuffer::Switch KvoxBuffer::BeginLocked(bool enable) {
  if (enable && IsEnabled() && !gave_up()) {
    LogInfo("Enable buffer %s: already enabled", name_.c_str());
    return Switch::kAlreadyThere;
  }
  if (!enable && !IsEnabled()) {
    LogInfo("Disable buffer %s: already disabled", name_.c_str());
    return Switch::kAlreadyThere;
  }
  if (enable && abandoned_) return Switch::kRefused;
  switching_ = true;
  const unsigned processors = enable ? environment_.wiring.CountProcessors(*this) : 0;
  if (!enable) {
    LogInfo("Disable buffer %s", name_.c_str());
  } else if (is_tapout_) {
    LogInfo("Enable buffer %s (%u processor%s connected), I/O thread start", name_.c_str(),
            processors, processors == 1 ? "" : "s");
  } else {
    LogInfo("Enable buffer %s with %u input", name_.c_str(), processors);
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
      ReportOpenFailed(fd, error);
      return fd;
    }
  }
}

/// After try `number` has failed: logs what comes next, and returns whether that is another try.
bool KvoxBuffer::AnotherTry(unsigned number, int fd, int error) const {
  if (number < kOpenRetries) {
    LogInfo("%s Attempting to reinitialize KVO interface, attempt %u\n", name_.c_str(), number + 1);
    return true;
  }
  ReportOpenFailed(fd, error);
  return false;
}

void KvoxBuffer::ReportOpenFailed(int status, int error) const {
  LogError("Open %s failed, status %d, errno %d", device_path_.c_str(), status, error);
  Note("cannot be opened", error);
}

void KvoxBuffer::Note(const char* what, int error) const {
  environment_.flight.Record(
      {.kind = flight::EventKind::kStream, .subject = name_, .text = what, .status = error});
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

/// False when the buffer should no longer open.
bool KvoxBuffer::WaitBeforeRetry() {
  const auto until = std::chrono::steady_clock::now() + kOpenRetryPause;
  MutexLock lock(mutex_);
  while (disables_waiting_ == 0 && !abandoned_) {
    if (!changed_.WaitUntil(mutex_, until)) return true;
  }
  return false;
}

/// Takes over `fd`. False when there is no thread to read it.
bool KvoxBuffer::EnableDevice(int fd) {
  if (is_tapout_) {
    SetRxFormat({});
    stream_slot_ = environment_.flight.OpenStream(name_);
    reader_ = std::make_unique<TapReader>(TapReaderLinks{.name = name_,
                                                         .device_path = device_path_,
                                                         .io = environment_.io,
                                                         .routes = publisher_,
                                                         .rx_format = rx_format_,
                                                         .recorder = *capture_,
                                                         .log = environment_.io_log,
                                                         .wake = wake_,
                                                         .gave_up = gave_up_,
                                                         .flight = stream_slot_},
                                          fd);
    if (!reader_->Start()) {
      EndReader();
      return false;
    }
    enabled_.store(true, std::memory_order_relaxed);
    Note("on", 0);
    return true;
  }
  Note("on", 0);
  enabled_.store(true, std::memory_order_relaxed);
  SwapPort(std::make_shared<InjectPort>(name_, device_path_, environment_.io, *capture_, fd,
                                        environment_.flight.OpenInject(name_)));
  return true;
}

/// Ends the I/O thread, or what is left of one that gave up.
void KvoxBuffer::EndReader() {
  if (!reader_) return;
  enabled_.store(false, std::memory_order_relaxed);
  reader_->Stop();
  reader_.reset();
  environment_.flight.CloseStream(std::exchange(stream_slot_, nullptr));
  gave_up_.store(false, std::memory_order_relaxed);
}

void KvoxBuffer::DisableDevice() {
  Note("off", 0);
  enabled_.store(false, std::memory_order_relaxed);
  if (is_tapout_) {
    EndReader();
    environment_.io_log.Flush();
    LogInfo("Buffer %s disabled, I/O thread end", name_.c_str());
  } else {
    SwapPort(nullptr);
    LogInfo("Buffer %s disabled", name_.c_str());
  }
}

/// The old port closes before this returns: no route leads to it any more.
void KvoxBuffer::SwapPort(std::shared_ptr<InjectPort> port) {
  {
    MutexLock lock(port_mutex_);
    port_.swap(port);
  }
  environment_.wiring.PortChanged(*this);
}

std::shared_ptr<InjectPort> KvoxBuffer::port() const {
  MutexLock lock(port_mutex_);
  return port_;
}

void KvoxBuffer::SetRoutes(std::vector<Route> routes) {
  MutexLock lock(routes_mutex_);
  PublishRoutes(std::move(routes));
}

void KvoxBuffer::SetRxFormat(const KvoxTapFormat& format) {
  {
    MutexLock lock(routes_mutex_);
    rx_format_.Set(format);
    PublishRoutes(publisher_.published().routes);
  }
  publisher_.WaitForGracePeriod();
}

void KvoxBuffer::PublishRoutes(std::vector<Route> routes) {
  std::string text = std::to_string(routes.size());
  for (const Route& route : routes) text += route.port ? " " + route.port->name() : "";
  environment_.flight.Record({.kind = flight::EventKind::kRoutes, .subject = name_, .text = text});
  const RxFormatCell::Value rx_format = rx_format_.Get();
  auto table = std::make_unique<RouteTable>();
  table->routes = std::move(routes);
  table->rx_format = rx_format.format;
  table->rx_format_serial = rx_format.serial;
  publisher_.Publish(std::move(table));
}

void KvoxBuffer::AbandonOpening() {
  MutexLock lock(mutex_);
  abandoned_ = true;
  changed_.NotifyAll();
}

bool KvoxBuffer::Drop() {
  AbandonOpening();
  if (dropped_.exchange(true)) return false;
  {
    MutexLock lock(mutex_);
    while (switching_) changed_.Wait(mutex_);
  }
  if (IsEnabled()) Enable(false);
  return true;
}

void KvoxBuffer::DumpBuffer(KvoxBuffer* source) {
  std::vector<std::byte> area;
  bool copied = false;
  if (is_tapout_) {
    copied = CopyWorkArea(nullptr, area);
  } else if (const std::shared_ptr<InjectPort> open_port = port()) {
    copied =
        source != nullptr ? source->CopyWorkArea(open_port.get(), area) : open_port->CopyTo(area);
  }
  if (!copied) {
    if (!is_tapout_ && port()) {
      LogError("%s: the packet that was sent last is no longer there; dump again while audio flows",
               name_.c_str());
    } else {
      LogError("%s buffer is null", name_.c_str());
    }
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

/// The receive area, or what was last sent through a port that this buffer feeds: between two
/// packets while the I/O thread runs; while there is none, none can start. False while the device
/// is being opened, which takes seconds.
bool KvoxBuffer::CopyWorkArea(InjectPort* port, std::vector<std::byte>& area) {
  {
    MutexLock lock(mutex_);
    while (switching_) {
      if (opening_) return false;
      changed_.Wait(mutex_);
    }
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
