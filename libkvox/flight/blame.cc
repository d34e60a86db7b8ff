#include "libkvox/flight/blame.h"

#include <algorithm>
#include <cstdlib>
#include <utility>

#include "kvox/common/fixed_text.h"
#include "kvox/common/four_cc.h"

namespace kvox::client {
namespace {

using flight::Loss;

/// A cause of timing explains what follows for so long.
constexpr uint64_t kApartNs = 2'000'000'000;
/// Packets on their way when a command takes effect, or a node leaves.
constexpr uint64_t kAroundNs = 200'000'000;
/// A damaged log may name any time.
constexpr int64_t kMostNs = int64_t{1} << 53;
/// Another thread of the daemon has no real-time priority: it is a little late all the time.
constexpr uint64_t kLateSamplerNs = 10'000'000;

double Ms(uint64_t ns) {
  return static_cast<double>(ns) * 1e-6;
}

std::string ProcessorOf(const PacketRecord& packet) {
  return packet.slowest_id == 0 ? "a processor"
                                : EscapeControls(ToString(static_cast<FourCc>(packet.slowest_id)));
}

uint64_t Before(uint64_t time_ns, uint64_t by_ns) {
  return time_ns - std::min(time_ns, by_ns);
}

bool ExplainsHalf(int64_t part_ns, int64_t error_ns) {
  return error_ns < 0 ? part_ns <= error_ns / 2 : part_ns >= error_ns / 2;
}

bool IsJunk(Loss loss) {
  return loss == Loss::kAlignment || loss == Loss::kNoMagic || loss == Loss::kHeader ||
         loss == Loss::kExcess;
}

const char* JunkText(Loss loss) {
  switch (loss) {
    case Loss::kAlignment:
      return "a read whose length is not a multiple of 8 bytes";
    case Loss::kNoMagic:
      return "bytes without the start of a packet";
    case Loss::kHeader:
      return "a header with a wrong version or size";
    default:
      return "more bytes than the packet before has";
  }
}

std::string ProcessText(uint32_t pid) {
  return "process " + std::to_string(pid);
}

}  // namespace

size_t PacketBefore(const std::vector<PacketRecord>& packets, size_t index) {
  do {
    if (index > 0) --index;
  } while (index > 0 && (packets[index].flags & flight::kRepeated) != 0);
  return index;
}

Investigation::Investigation(const FlightView& flight, const StreamView& stream)
    : flight_(flight),
      stream_(stream),
      packets_(stream.packets),
      stamps_(stream.packets),
      scheduling_(stream),
      events_(flight, stream) {}

int64_t Investigation::ErrorNs(size_t index) const {
  if (index == 0) return 0;
  const PacketRecord& packet = packets_[index];
  const auto interval_ns = static_cast<int64_t>(packet.arrived_ns - packets_[index - 1].arrived_ns);
  return std::clamp(interval_ns, -kMostNs, kMostNs) -
         static_cast<int64_t>(packet.period_ns) * (int64_t{packet.missing} + 1);
}

Blame Investigation::Of(Symptom symptom, size_t index) {
  const PacketRecord& packet = packets_[index];
  switch (symptom) {
    case Symptom::kLate:
    case Symptom::kEarly:
      last_timing_ = OfTiming(index);
      last_timing_ns_ = packet.arrived_ns;
      return last_timing_;
    case Symptom::kMissing:
      return OfMissing(index);
    case Symptom::kLost:
      return packet.loss == Loss::kSlip ? last_timing_ : OfLoss(index);
    case Symptom::kRepeated:
      return {Cause::kCoprocessorRepeated, "", "its number has come before, or is out of order"};
    case Symptom::kInterrupted:
      return OfInterruption(index);
  }
  return {};
}

Blame Investigation::OfTiming(size_t index) {
  if (index == 0) return {};
  const PacketRecord& before = packets_[index - 1];
  const PacketRecord& packet = packets_[index];
  const int64_t error_ns = ErrorNs(index);
  const int64_t little_ns = packet.period_ns / 4;
  // The daemon compares with one period, whatever is missing.
  if (packet.missing > 0 && std::abs(error_ns) < little_ns) return OfMissing(index);
  if (auto blame = ByJunk(index)) return *blame;
  if (auto blame = MakesUp(index, error_ns)) return *blame;
  if (before.period_ns != packet.period_ns) {
    const uint64_t from_ns = Before(before.arrived_ns, kAroundNs);
    if (auto blame = ByCaller(events_.TapChange(from_ns, packet.arrived_ns))) return *blame;
  }
  if (std::abs(error_ns) < little_ns / 2) {
    return {Cause::kUndecided, "",
            "it came in time; kvoxd compares with whole milliseconds, use longer blocks"};
  }
  if (auto blame = BusyBefore(index, error_ns)) return *blame;
  if (error_ns > 0) {
    const EventView* const change = events_.TapChange(before.arrived_ns, packet.arrived_ns);
    if (auto blame = ByCaller(change)) return *blame;
  }
  if (auto blame = ByStamps(index, error_ns)) return *blame;
  if (error_ns <= 0) return {Cause::kUndecided, "", "nothing tells why it came early"};
  const auto late_ns = static_cast<uint64_t>(error_ns);
  if (auto blame = ByScheduling(index, late_ns)) return *blame;
  if (!stamps_.usable()) {
    return {Cause::kUndecided, "", "the stamps do not tell when the co-processor sent it"};
  }
  if (!scheduling_.WaitAround(before.arrived_ns, packet.arrived_ns, SpanBegin(index))) {
    return {Cause::kUndecided, "", "there are no samples of the thread's scheduling"};
  }
  return {Cause::kDeviceLate, "",
          FormatText<128>("the stamps are punctual, the thread waited for the device, and the "
                          "packet came %.1f ms late",
                          Ms(late_ns))};
}

/// A packet that makes up for one that was late or early has the same cause.
std::optional<Blame> Investigation::MakesUp(size_t index, int64_t error_ns) {
  if (packets_[index].arrived_ns > last_timing_ns_ + kApartNs) behind_ns_ = 0;
  const int64_t behind_ns =
      std::exchange(behind_ns_, std::clamp(behind_ns_ + error_ns, -kMostNs, kMostNs));
  const bool opposite = (behind_ns > 0 && error_ns < 0) || (behind_ns < 0 && error_ns > 0);
  return opposite && ExplainsHalf(-behind_ns, error_ns) ? std::optional(last_timing_)
                                                        : std::nullopt;
}

/// Junk before a packet, or one that was put together from two: junk comes right behind it.
std::optional<Blame> Investigation::ByJunk(size_t index) const {
  const PacketRecord& packet = packets_[index];
  const auto blame = [](const char* where, Loss loss) {
    return Blame{Cause::kJunk, "", std::string(where) + " it came " + JunkText(loss)};
  };
  if (IsJunk(packet.missing_because)) return blame("before", packet.missing_because);
  if (packet.left_over > 0) return blame("with", Loss::kExcess);
  if (index + 1 < packets_.size() && IsJunk(packets_[index + 1].missing_because)) {
    return blame("behind", packets_[index + 1].missing_because);
  }
  return std::nullopt;
}

/// The thread was still at work on the packet before.
std::optional<Blame> Investigation::BusyBefore(size_t index, int64_t error_ns) const {
  const PacketRecord& before = packets_[index - 1];
  const PacketRecord& packet = packets_[index];
  const int64_t overrun_ns = int64_t{before.dispatch_ns} - int64_t{packet.period_ns};
  if (error_ns <= 0 || !ExplainsHalf(overrun_ns, error_ns)) return std::nullopt;
  if (auto blame = ByScheduling(index, static_cast<uint64_t>(overrun_ns))) return blame;
  const std::string processor = ProcessorOf(before);
  const auto evidence = [&](const std::string& who, uint64_t ns) {
    return FormatText<192>("packet %u before it kept the thread for %.1f ms, of which %s %.1f ms",
                           before.number, Ms(before.dispatch_ns), who.c_str(), Ms(ns));
  };
  if (before.client_ns > before.dispatch_ns / 2) {
    return Blame{Cause::kClientLate, processor,
                 evidence("the client of " + processor, before.client_ns)};
  }
  if (before.slowest_ns >= before.write_ns) {
    return Blame{Cause::kProcessorSlow, processor, evidence(processor, before.slowest_ns)};
  }
  return Blame{Cause::kInjectFull, InjectOf(before),
               evidence("writing to " + InjectOf(before), before.write_ns)};
}

/// The thread, or the whole machine, stood still.
std::optional<Blame> Investigation::ByScheduling(size_t index, uint64_t late_ns) const {
  const PacketRecord& before = packets_[index - 1];
  const PacketRecord& packet = packets_[index];
  const auto wait = scheduling_.WaitAround(before.arrived_ns, packet.arrived_ns, SpanBegin(index));
  if (!wait) return std::nullopt;
  if (wait->waited_ns >= late_ns / 2) {
    return Blame{Cause::kNoProcessorTime, "",
                 FormatText<128>("the thread was ready, and waited %.1f ms for a processor",
                                 Ms(wait->waited_ns))};
  }
  if (wait->sampler_ns >= std::max(late_ns / 4 * 3, kLateSamplerNs)) {
    return Blame{Cause::kNoProcessorTime, "",
                 FormatText<128>("another thread of kvoxd was %.1f ms late at the same time: the "
                                 "machine stood still",
                                 Ms(wait->sampler_ns))};
  }
  return std::nullopt;
}

std::optional<Blame> Investigation::ByStamps(size_t index, int64_t error_ns) const {
  if (!stamps_.usable()) return std::nullopt;
  const PacketRecord& packet = packets_[index];
  const int64_t sent_ns = stamps_.BetweenNs(packets_[index - 1], packet);
  const int64_t stamp_error_ns =
      sent_ns - static_cast<int64_t>(packet.period_ns) * (int64_t{packet.missing} + 1);
  if (!ExplainsHalf(stamp_error_ns, error_ns)) return std::nullopt;
  return Blame{error_ns < 0 ? Cause::kCoprocessorEarly : Cause::kCoprocessorLate, "",
               FormatText<160>("by its stamps the co-processor sent it %.1f ms after the one "
                               "before, the period is %.1f ms",
                               static_cast<double>(sent_ns) * 1e-6, Ms(packet.period_ns))};
}

/// A process had the daemon do this. None for the daemon itself.
std::optional<Blame> Investigation::ByCaller(const EventView* change) const {
  if (change == nullptr || change->pid == 0) return std::nullopt;
  const EventView* const command = events_.CommandDuring(change->at_ns, change->pid);
  return Blame{Cause::kRewired, ProcessText(change->pid),
               ProcessText(change->pid) +
                   (command == nullptr ? " has a command running"
                                       : " had kvoxd run \"" + command->text + "\"") +
                   " that changed " + change->subject};
}

std::optional<Blame> Investigation::ByDevices(uint64_t from_ns, uint64_t to_ns,
                                              const std::string& node) const {
  const EventView* const change = events_.DeviceChange(from_ns, to_ns, node);
  if (change == nullptr) return std::nullopt;
  return Blame{Cause::kRestart, "", "the node " + change->subject + " " + change->text + " then"};
}

/// The client of the processor that had this packet.
std::optional<Blame> Investigation::ByClientDeath(uint64_t from_ns, uint64_t to_ns,
                                                  size_t index) const {
  const std::string processor = ProcessorOf(packets_[index]);
  if (events_.ClientDeath(from_ns, to_ns, processor) == nullptr) return std::nullopt;
  return Blame{Cause::kClientDied, processor, "kvoxd noticed the death then"};
}

/// Packets may also be missing because the device's queue was full: then the thread finds packets
/// waiting from the one that it was late for up to the gap.
Blame Investigation::OfMissing(size_t index) {
  const PacketRecord& packet = packets_[index];
  if (auto blame = ByJunk(index)) return *blame;
  if (packet.missing_because == Loss::kSlip) return last_timing_;
  if (index == 0) return {};
  const PacketRecord& before = packets_[index - 1];
  if (packet.missing_because == Loss::kDevice) {
    if (auto blame = ByDevices(before.arrived_ns, packet.arrived_ns)) return *blame;
    return {Cause::kReadErrors, "", "reading the device failed, or it was opened anew"};
  }
  size_t first = index;
  while (first > 0 && (packets_[first].flags & flight::kQueued) != 0) --first;
  if (first < index) {
    if (auto blame = BusyBefore(first + 1, ErrorNs(first + 1))) return *blame;
    return last_timing_;
  }
  const bool no_time = ErrorNs(index) <= -int64_t{packet.period_ns} / 2;
  return {Cause::kCoprocessorSkipped, "",
          no_time ? "the number jumped, but no time is missing between the packets"
                  : "the thread waited for the device, which delivered nothing in between"};
}

Blame Investigation::OfLoss(size_t index) const {
  const PacketRecord& packet = packets_[index];
  const std::string processor = ProcessorOf(packet);
  const uint64_t from_ns = Before(packet.arrived_ns, kAroundNs);
  const uint64_t to_ns = packet.arrived_ns + kAroundNs;
  switch (packet.loss) {
    case Loss::kNoRoute:
      if (auto blame = ByCaller(events_.LastDisconnect(packet.arrived_ns))) return *blame;
      return {Cause::kNoRoute, "", "no processor reads the buffer"};
    case Loss::kSwitchedOff:
      if (auto blame = ByCaller(events_.SwitchingOff(from_ns, to_ns))) return *blame;
      return OfChange(index, from_ns, to_ns);
    case Loss::kRewired:
      return OfChange(index, from_ns, to_ns);
    case Loss::kProcessor:
      return {Cause::kProcessorRefused, processor, processor + " returned an error"};
    case Loss::kClientLate:
      return OfClient(packet);
    case Loss::kClientRefused:
      return {Cause::kClientRefused, processor, "the client of " + processor + " refused it"};
    case Loss::kInjectFull:
      return {
          Cause::kInjectFull, InjectOf(packet),
          InjectOf(packet) + FormatText<64>(" had no room within %.1f ms", Ms(packet.write_ns))};
    case Loss::kInjectGone:
      if (auto blame = ByDevices(from_ns, to_ns, InjectOf(packet))) return *blame;
      return {Cause::kInjectGone, InjectOf(packet), "writing to " + InjectOf(packet) + " failed"};
    default:
      return {};
  }
}

/// Somebody changed the connections around that time.
Blame Investigation::OfChange(size_t index, uint64_t from_ns, uint64_t to_ns) const {
  if (auto blame = ByCaller(events_.RouteChange(from_ns, to_ns))) return *blame;
  if (auto blame = ByClientDeath(from_ns, to_ns, index)) return *blame;
  if (auto blame = ByDevices(from_ns, to_ns)) return *blame;
  return {Cause::kUndecided, "", "its routes were replaced; by whom is not recorded"};
}

/// Clients have until half a period after the arrival.
Blame Investigation::OfClient(const PacketRecord& packet) const {
  const std::string processor = ProcessorOf(packet);
  const uint64_t allowed_ns = packet.period_ns / 2;
  if (packet.client_ns == 0) {
    return {Cause::kClientLate, processor,
            "the client of " + processor + " was busy with an earlier packet"};
  }
  const auto wait = scheduling_.WaitAround(packet.arrived_ns, packet.arrived_ns + allowed_ns, 0);
  if (wait && packet.client_ns > allowed_ns * 2 && wait->waited_ns > packet.client_ns / 2) {
    return {Cause::kNoProcessorTime, "",
            FormatText<128>("the thread waited %.1f ms for a processor while the client had it",
                            Ms(wait->waited_ns))};
  }
  if (packet.client_ns < allowed_ns / 4) {
    return {Cause::kUndecided, processor,
            "earlier processors of the buffer left its client too little time"};
  }
  return {Cause::kClientLate, processor,
          FormatText<128>("the client of %s had no reply within %.1f ms", processor.c_str(),
                          Ms(packet.client_ns))};
}

/// By who switched the stream off, else by the nodes that left.
Blame Investigation::OfInterruption(size_t index) const {
  if (index == 0) return {};
  const size_t last = PacketBefore(packets_, index);
  const PacketRecord& before = packets_[last];
  const uint64_t from_ns = Before(before.arrived_ns, before.period_ns);
  const uint64_t to_ns = packets_[index].arrived_ns;
  const EventView* const change = events_.Switching(from_ns, to_ns);
  if (auto blame = ByCaller(change)) return *blame;
  if (auto blame = ByClientDeath(from_ns, to_ns, last)) return *blame;
  if (auto blame = ByDevices(Before(from_ns, kAroundNs), to_ns)) return *blame;
  if (change != nullptr && change->text == flight::kGaveUp) {
    return {Cause::kReadErrors, "", "kvoxd gave up reading the device until it was switched on"};
  }
  if (auto blame = ByCaller(events_.TapChange(from_ns, to_ns))) return *blame;
  return {Cause::kUndecided, "", "the stream began anew, and nothing tells why"};
}

/// The inject buffer that did not take the packet.
std::string Investigation::InjectOf(const PacketRecord& packet) const {
  const size_t slot = packet.failed_inject;
  const bool known = slot < flight_.injects.size() && !flight_.injects[slot].name.empty();
  return known ? flight_.injects[slot].name : "an inject buffer of " + stream_.name;
}

/// When the thread that has read the packet began: its first packet at the latest.
uint64_t Investigation::SpanBegin(size_t index) const {
  while (index > 0 && (packets_[index].flags & flight::kFirst) == 0) --index;
  const bool first = (packets_[index].flags & flight::kFirst) != 0;
  return first ? packets_[index].arrived_ns : 0;
}

}  // namespace kvox::client
