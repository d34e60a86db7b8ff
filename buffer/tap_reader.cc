#include "buffer/tap_reader.h"

#include <cstring>
#include <system_error>
#include <utility>

#include "buffer/rx_report.h"
#include "kvox/common/kvox_utils.h"

namespace kvox {
namespace {

/// Far more than needed to find a stream, which takes one large read that ends in it.
constexpr uint32_t kJunkReadsBeforePause = 16;
constexpr auto kRelaxed = std::memory_order_relaxed;

}  // namespace

TapReader::TapReader(const TapReaderLinks& links, int fd)
    : links_(links),
      name_(links.name.c_str()),
      calls_(links.wake),
      device_({.name = links.name,
               .path = links.device_path,
               .io = links.io,
               .wake = links.wake,
               .routes = links.routes,
               .calls = calls_},
              fd),
      areas_(std::make_unique<std::byte[]>(2 * kPacketMaxSize)),
      receive_area_(areas_.get(), kPacketMaxSize),
      parser_(receive_area_, StreamParser::Area(areas_.get() + kPacketMaxSize, kPacketMaxSize)),
      account_(links.flight) {}

TapReader::~TapReader() {
  Stop();
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
  device_.RequestStop();
  if (thread_.joinable()) thread_.join();
}

/// The packet path.
void TapReader::Run() {
  stored_header_ = {};
  stored_header_.magic = 0;
  stored_header_.version = 0;
  rx_format_serial_ = links_.rx_format.Get().serial;
  account_.Begin();
  while (std::byte* const packet = NextPacket()) {
    KvoxPacketHeader header;
    std::memcpy(&header, packet, sizeof header);
    links_.recorder.Record(header, {packet + kPacketHeaderSize, header.payload_size});
    const uint64_t now_ns = device_.NowNs();
    account_.Arrived(header, now_ns);
    if (device_.stopping()) {
      account_.Lose(flight::Loss::kSwitchedOff);
    } else if (JudgeTiming(header, now_ns)) {
      FollowStream(header);
      const RoutePublisher::Use table(links_.routes);
      FollowFormat(*table, header);
      Dispatch(*table, header, packet, now_ns);
    }
    account_.Close();
  }
  KeepSentPackets();
  LogInfo("%s %s end", name_, "ioProcess");
  if (!device_.stopping()) {
    account_.End();
    links_.gave_up.store(true, kRelaxed);
  }
  calls_.End();
}

/// Wait, read, parse. Null when the thread must end.
std::byte* TapReader::NextPacket() {
  if (!StartOver()) return nullptr;
  for (;;) {
    size_t size = 0;
    const TapDevice::Outcome outcome = device_.Read(parser_.ReadArea(), size);
    if (outcome == TapDevice::Outcome::kEnd) return nullptr;
    if (outcome != TapDevice::Outcome::kBytes) {
      account_.DeviceFailed();
      parser_.Resync();
      if (outcome == TapDevice::Outcome::kReopened && !StartOver()) return nullptr;
      continue;
    }
    last_payload_ = nullptr;
    const StreamFindings findings = parser_.Consume(size);
    LogFindings(name_, findings);
    account_.Read(findings, size);
    if (findings.next == StreamFindings::Next::kPacket) {
      junk_reads_ = 0;
      return findings.packet;
    }
    // A device that always has bytes but no packet would keep a core at the highest priority.
    if (findings.Junk() && ++junk_reads_ >= kJunkReadsBeforePause) device_.Pause();
    if (findings.next == StreamFindings::Next::kStartOver && !StartOver()) return nullptr;
  }
}

/// Drops what is assembled. False when the thread must end.
bool TapReader::StartOver() {
  if (device_.stopping()) return false;
  if (parser_.resyncing()) LogInfo("%s RX resync", name_);
  parser_.StartOver();
  device_.StartOver();
  return true;
}

/// False when the stream has slipped: drops this packet and resyncs.
bool TapReader::JudgeTiming(const KvoxPacketHeader& header, uint64_t now_ns) {
  const TimingVerdict verdict = judge_.Judge(now_ns, header.format, header.payload_size);
  account_.Judged(verdict);
  LogTiming(name_, verdict.arrival, judge_.elapsed_ms());
  if (verdict.slipped) parser_.Resync();
  return !verdict.slipped;
}

void TapReader::FollowStream(const KvoxPacketHeader& header) {
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
  ++packets_;
  const uint32_t interval = ReportInterval(header.format, header.payload_size);
  const bool punctual = judge_.last() == TimingVerdict::Arrival::kOnTime;
  if (packets_ % interval != 0 && punctual) return;
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
  uint64_t begin_ns = arrived_ns;
  SendPatience patience(header, device_);
  for (const Route& route : table.routes) {
    if (begin_ns == 0) begin_ns = device_.NowNs();
    OutputArea area(route.port ? route.port->PayloadArea(header.payload_size)
                               : std::span<std::byte>());
    const uint64_t route_begin_ns = begin_ns;
    const BlockResult result =
        route.processor->ProcessBlock({.audio = payload,
                                       .format = stored_header_.format,
                                       .arrived_ns = arrived_ns,
                                       .begin_ns = std::exchange(begin_ns, 0),
                                       .connected = route.connected,
                                       .state = route.state.get(),
                                       .waiter = device_},
                                      route.port ? &area : nullptr);
    if (device_.last_ns() == route_begin_ns) device_.NowNs();  // the processor did not look
    account_.Processed(*route.processor, result, device_.last_ns() - route_begin_ns, WhyEnded());
    if (result.status != 0) {
      LogError("%s %s: ProcessBlock returned status %d", name_, "ioProcess", result.status);
    }
    if (route.port) Send(route, result, area, header, packet, patience);
    account_.RouteDone();
  }
  const bool unused = table.routes.empty() && !links_.recorder.recording();
  if (unused) account_.Lose(flight::Loss::kNoRoute);
  account_.Dispatched(device_.NowNs());
}

/// What has ended waits inside this packet; kNone for nothing.
flight::Loss TapReader::WhyEnded() const {
  if (device_.stopping()) return flight::Loss::kSwitchedOff;
  return links_.routes.Superseded() ? flight::Loss::kRewired : flight::Loss::kNone;
}

void TapReader::Send(const Route& route, const BlockResult& result, OutputArea& area,
                     const KvoxPacketHeader& header, std::byte* packet, SendPatience& patience) {
  KvoxPacketHeader outgoing = stored_header_;
  outgoing.stamp = header.stamp;
  outgoing.packet_num = header.packet_num;
  outgoing.payload_size = header.payload_size;
  int32_t status;
  if (result.output_is_input) {
    status = route.port->SendInPlace(outgoing, packet, patience);
  } else {
    area.Data();  // silence, where the processor wrote nothing
    status = route.port->SendBuilt(outgoing, patience);
  }
  account_.Sent(*route.port, WhyEnded());
  if (status != kPortOk) {
    LogError("%s: %s writePacketToKvo returned status %d", route.port->name().c_str(), "ioProcess",
             status);
  }
}

/// Packets that were sent from our areas are copied to the ports' before ours are freed.
void TapReader::KeepSentPackets() {
  const RoutePublisher::Use table(links_.routes);
  for (const Route& route : table->routes) {
    if (route.port) route.port->KeepSentPacket(last_payload_);
  }
}

bool TapReader::CopyArea(InjectPort* port, std::vector<std::byte>& copy) {
  copy.reserve(kPacketMaxSize);  // the I/O thread must not allocate
  bool present = true;
  const bool done = calls_.Run([&] {
    if (port == nullptr) {
      copy.assign(receive_area_.begin(), receive_area_.end());
    } else {
      port->KeepSentPacket(last_payload_);
      present = port->CopyTo(copy);
    }
  });
  return done && present;
}

}  // namespace kvox
