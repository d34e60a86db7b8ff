#include "buffer/tap_reader.h"

#include <cerrno>
#include <chrono>
#include <cstring>
#include <system_error>
#include <utility>

#include "buffer/rx_report.h"
#include "kvox/common/fixed_text.h"
#include "kvox/common/kvox_utils.h"

namespace kvox {
namespace {

constexpr int kWaitMs = 200;
constexpr uint32_t kWaitsPerLine = 20;
constexpr int kPauseMs = 10;
constexpr uint32_t kErrorsBeforeReinit = 10;
/// Far more than a stream needs to be found: it shows in the first large read that ends in it.
constexpr uint32_t kJunkReadsBeforePause = 16;
constexpr int kReinitAttempts = 5;
constexpr int kReinitPauseMs = 500;
constexpr auto kCopyPatience = std::chrono::seconds(1);
constexpr uint64_t kNsPerMs = 1'000'000;
constexpr auto kRelaxed = std::memory_order_relaxed;

int WholeMsBetween(uint64_t now_ns, uint64_t until_ns) {
  return static_cast<int>((until_ns - now_ns + kNsPerMs - 1) / kNsPerMs);
}

/// Only the thread counts, so load and store suffice.
void Count(auto& counter) {
  counter.store(counter.load(kRelaxed) + 1, kRelaxed);
}

}  // namespace

TapReader::TapReader(TapReaderLinks links, int fd)
    : links_(std::move(links)),
      name_(links_.name.c_str()),
      areas_(std::make_unique<std::byte[]>(2 * kPacketMaxSize)),
      receive_area_(areas_.get(), kPacketMaxSize),
      parser_(receive_area_, StreamParser::Area(areas_.get() + kPacketMaxSize, kPacketMaxSize)) {
  SetHandle(fd);
}

TapReader::~TapReader() {
  Stop();
  SetHandle(-1);
}

/// Closes what was open before.
void TapReader::SetHandle(int fd) {
  if (watch_ >= 0) links_.io.Close(watch_);
  if (handle_ >= 0) links_.io.Close(handle_);
  handle_ = fd;
  watch_ = fd >= 0 ? links_.io.Watch(fd, links_.wake.fd()) : -1;
}

bool TapReader::Start() {
  try {
    thread_ = std::thread([this] {
      SetThreadName(name_);
      ScopedThreadLog log(links_.log);
      SetThreadRealtimePriority();
      Run();
    });
  } catch (const std::system_error& error) {
    LogError("%s: cannot start the I/O thread: %s; end other programs or buffers first", name_,
             error.what());
    return false;
  }
  return true;
}

void TapReader::Stop() {
  stopping_.store(true, kRelaxed);
  links_.wake.Signal();
  if (thread_.joinable()) thread_.join();
}

void TapReader::Run() {
  stored_header_ = {};
  stored_header_.magic = 0;
  stored_header_.version = 0;
  rx_format_serial_ = links_.rx_format.Get().serial;
  while (!stopping()) {
    if (parser_.resyncing()) LogInfo("%s RX resync", name_);
    parser_.StartOver();
    waits_ = 0;
    read_errors_ = 0;
    StreamFindings findings;
    const Outcome outcome = ReadPacket(findings);
    if (outcome == Outcome::kEnd) break;
    if (outcome == Outcome::kPacket) HandlePacket(findings);
  }
  KeepSentPackets();
  LogInfo("%s %s end", name_, "ioProcess");
  MutexLock lock(copy_mutex_);
  ended_ = true;
  copied_.NotifyAll();
}

TapReader::Outcome TapReader::ReadPacket(StreamFindings& findings) {
  while (!stopping() && handle_ >= 0) {
    if (copy_wanted_.load(kRelaxed)) OnWake();
    switch (WaitForInput()) {
      case DeviceIo::Ready::kDevice:
        break;
      case DeviceIo::Ready::kWoken:
        OnWake();
        continue;
      case DeviceIo::Ready::kTimeout:
        if (waits_++ % kWaitsPerLine == 0) LogInfo("%s waiting for KVO RX\n", name_);
        continue;
      case DeviceIo::Ready::kFailed:
        LogError("%s select failed\n", name_);
        return Outcome::kEnd;
    }
    const std::span<std::byte> area = parser_.ReadArea();
    const ssize_t size = links_.io.Read(handle_, area);
    if (size < 0) {
      const Outcome outcome = HandleReadError(errno, area.size());
      if (outcome == Outcome::kPacket) continue;
      return outcome;
    }
    if (size == 0) {  // hung up: its next word may take long, and poll would not wait for it
      Pause(kPauseMs);
      continue;
    }
    findings = parser_.Consume(static_cast<size_t>(size));
    LogFindings(name_, findings);
    if (findings.next == StreamFindings::Next::kPacket) {
      junk_reads_ = 0;
      return Outcome::kPacket;
    }
    // A device that always has bytes but no packet would keep a core at the highest priority.
    if (findings.Junk() && ++junk_reads_ >= kJunkReadsBeforePause) Pause(kPauseMs);
    if (findings.next == StreamFindings::Next::kStartOver) return Outcome::kStartOver;
  }
  return Outcome::kEnd;
}

DeviceIo::Ready TapReader::WaitForInput() {
  if (watch_ >= 0) return links_.io.WaitWatched(watch_, kWaitMs);
  return links_.io.Wait(handle_, DeviceIo::Direction::kRead, links_.wake.fd(), kWaitMs);
}

/// kPacket stands for "go on with the packet".
TapReader::Outcome TapReader::HandleReadError(int error, size_t requested) {
  if (stopping()) return Outcome::kEnd;
  if (read_errors_ == kErrorsBeforeReinit) return Reinitialise();
  LogError("%s KVO read status %d (errno %d: %s), trying again, handle_ %d, read_sz %u", name_, -1,
           error, ErrorText(error).c_str(), handle_, static_cast<unsigned>(requested));
  ++read_errors_;
  Pause(kPauseMs);
  parser_.Resync();
  return Outcome::kPacket;
}

TapReader::Outcome TapReader::Reinitialise() {
  for (int attempt = 0; attempt < kReinitAttempts; ++attempt) {
    LogInfo("%s Attempting to reinitialize KVO interface", name_);
    Pause(kReinitPauseMs);
    if (stopping()) return Outcome::kEnd;
    SetHandle(-1);
    const int fd = links_.io.Open(links_.device_path.c_str(), DeviceIo::Direction::kRead);
    const int error = errno;
    SetHandle(fd);
    if (handle_ >= 0) {
      LogInfo("%s Re-init success", name_);
      parser_.Resync();
      return Outcome::kStartOver;
    }
    LogError("Error opening %s, status %d (errno %d: %s)\n", links_.device_path.c_str(), handle_,
             error, ErrorText(error).c_str());
  }
  LogError("%s KVO interface error, status %d\n", name_, handle_);
  return Outcome::kEnd;
}

void TapReader::Pause(int ms) {
  const uint64_t until = links_.io.NowNs() + static_cast<uint64_t>(ms) * kNsPerMs;
  while (!stopping()) {
    const uint64_t now = links_.io.NowNs();
    if (now >= until) return;
    const DeviceIo::Ready ready = links_.io.Wait(-1, DeviceIo::Direction::kRead, links_.wake.fd(),
                                                 WholeMsBetween(now, until));
    if (ready == DeviceIo::Ready::kWoken) OnWake();
    if (ready == DeviceIo::Ready::kFailed) return;
  }
}

void TapReader::OnWake() {
  links_.wake.Clear();
  if (!copy_wanted_.load(kRelaxed)) return;
  MutexLock lock(copy_mutex_);
  copy_wanted_.store(false, kRelaxed);
  if (copy_request_ != nullptr) ServeCopy(*copy_request_);
  copied_.NotifyAll();
}

void TapReader::ServeCopy(CopyRequest& request) {
  std::span<const std::byte> area = receive_area_;
  if (request.port != nullptr) {
    if (last_payload_ != nullptr) request.port->KeepSentPacket(last_payload_);
    area = request.port->WorkArea();
  }
  std::memcpy(request.copy->data(), area.data(), area.size());
  request.done = true;
}

/// Packets that were sent from our areas go to the ports' own before ours are gone.
void TapReader::KeepSentPackets() {
  if (last_payload_ == nullptr) return;
  const RoutePublisher::Use table(links_.routes);
  for (const Route& route : table->routes) {
    if (route.port) route.port->KeepSentPacket(last_payload_);
  }
}

bool TapReader::CopyArea(InjectPort* port, std::vector<std::byte>& copy) {
  copy.resize(kPacketMaxSize);
  CopyRequest request{.port = port, .copy = &copy, .done = false};
  const auto deadline = std::chrono::steady_clock::now() + kCopyPatience;
  MutexLock lock(copy_mutex_);
  copy_request_ = &request;
  copy_wanted_.store(true, kRelaxed);
  links_.wake.Signal();
  while (!request.done && !ended_ && copied_.WaitUntil(copy_mutex_, deadline)) {
  }
  if (!request.done && ended_) ServeCopy(request);  // the areas have no other user any more
  copy_request_ = nullptr;
  return request.done;
}

bool TapReader::WaitWritable(int fd, uint64_t deadline_ns) {
  return WaitFor(fd, DeviceIo::Direction::kWrite, deadline_ns);
}

bool TapReader::WaitReadable(int fd, uint64_t deadline_ns) {
  return WaitFor(fd, DeviceIo::Direction::kRead, deadline_ns);
}

bool TapReader::WaitFor(int fd, DeviceIo::Direction direction, uint64_t deadline_ns) {
  while (!stopping() && !links_.routes.Stale()) {
    const uint64_t now = links_.io.NowNs();
    if (now >= deadline_ns) return false;
    const DeviceIo::Ready ready =
        links_.io.Wait(fd, direction, links_.wake.fd(), WholeMsBetween(now, deadline_ns));
    if (ready == DeviceIo::Ready::kDevice) return !stopping() && !links_.routes.Stale();
    if (ready == DeviceIo::Ready::kFailed) return false;
    if (ready == DeviceIo::Ready::kWoken) links_.wake.Clear();  // a wish for a copy stays noted
  }
  return false;
}

void TapReader::HandlePacket(const StreamFindings& findings) {
  KvoxPacketHeader header;
  std::memcpy(&header, findings.packet, sizeof header);
  links_.recorder.Record(header, {findings.packet + kPacketHeaderSize, header.payload_size});
  if (stopping()) return;
  statistics_.samples_per_packet.store(FrameCount(header.format, header.payload_size), kRelaxed);
  statistics_.sample_rate.store(header.format.sample_rate, kRelaxed);

  const uint64_t now = links_.io.NowNs();
  const TimingVerdict verdict = judge_.Judge(now, header.format, header.payload_size);
  LogTiming(name_, verdict.arrival, judge_.elapsed_ms());
  if (verdict.arrival == TimingVerdict::Arrival::kEarly) Count(statistics_.early);
  if (verdict.arrival == TimingVerdict::Arrival::kLate) Count(statistics_.late);
  if (verdict.slipped) {
    parser_.Resync();
    return;
  }
  FollowStream(header, verdict.arrival != TimingVerdict::Arrival::kOnTime);
  const RoutePublisher::Use table(links_.routes);
  FollowFormat(*table, header);
  Dispatch(*table, header, findings.packet, now);
}

void TapReader::FollowStream(const KvoxPacketHeader& header, bool unpunctual) {
  if (header.packet_num != previous_number_ + 1) {
    LogInfo("%s %s RX packet_num jump %u -> %u", name_, "ioProcess", previous_number_,
            header.packet_num);
  }
  previous_number_ = header.packet_num;
  if (header.payload_size != previous_payload_size_) {
    LogInfo("%s: RX process payload sz change %u --> %u", name_, previous_payload_size_,
            header.payload_size);
  }
  previous_payload_size_ = header.payload_size;
  Count(statistics_.packets);
  const uint32_t interval = ReportInterval(header.format, header.payload_size);
  if (statistics_.packets.load(kRelaxed) % interval != 0 && !unpunctual) return;
  LogInfo("%s: RX packet_num:%u payload_sz:%u period:%g ms", name_, header.packet_num,
          header.payload_size, static_cast<double>(judge_.elapsed_ms()));
  if (links_.recorder.recording()) {
    LogInfo("%s: wav file capture is ENABLED, %u samples", name_, links_.recorder.samples());
  }
}

void TapReader::FollowFormat(const RouteTable& table, const KvoxPacketHeader& header) {
  if (table.rx_format_serial != rx_format_serial_) {
    rx_format_serial_ = table.rx_format_serial;
    stored_header_.format = table.rx_format;
  }
  if (!FormatDiffers(stored_header_, header)) return;
  LogFormatChange(name_, stored_header_, header);
  stored_header_ = header;
  links_.rx_format.Adopt(header.format, rx_format_serial_);
}

void TapReader::Dispatch(const RouteTable& table, const KvoxPacketHeader& header, std::byte* packet,
                         uint64_t arrived_ns) {
  const std::span<const std::byte> payload(packet + kPacketHeaderSize, header.payload_size);
  last_payload_ = payload.data();
  for (const Route& route : table.routes) {
    OutputArea area(route.port ? route.port->PayloadArea(header.payload_size)
                               : std::span<std::byte>());
    const BlockResult result = route.processor->ProcessPacket({.audio = payload,
                                                               .format = stored_header_.format,
                                                               .arrived_ns = arrived_ns,
                                                               .connected = route.output != nullptr,
                                                               .state = route.state.get(),
                                                               .waiter = *this},
                                                              route.port ? &area : nullptr);
    if (result.status != 0) {
      LogError("%s %s: ProcessBlock returned status %d", name_, "ioProcess", result.status);
    }
    if (route.port) Send(route, result, area, header, packet);
  }
}

void TapReader::Send(const Route& route, const BlockResult& result, OutputArea& area,
                     const KvoxPacketHeader& header, std::byte* packet) {
  KvoxPacketHeader outgoing = stored_header_;
  outgoing.stamp = header.stamp;
  outgoing.packet_num = header.packet_num;
  outgoing.payload_size = header.payload_size;
  int32_t status;
  if (result.output_is_input) {
    status = route.port->SendInPlace(outgoing, packet, *this);
  } else {
    area.Data();  // silence, where the processor wrote nothing
    status = route.port->SendBuilt(outgoing, *this);
  }
  if (status != kPortOk) {
    Count(statistics_.write_errors);
    LogError("%s: %s writePacketToKvo returned status %d", route.port->name().c_str(), "ioProcess",
             status);
  }
}

}  // namespace kvox
