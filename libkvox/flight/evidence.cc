#include "libkvox/flight/evidence.h"

#include <algorithm>
#include <cmath>
#include <map>

namespace kvox::client {
namespace {

constexpr size_t kFewestPairs = 8;
constexpr double kTolerance = 0.1;
constexpr double kEven = 1e-6;
constexpr double kMostOutside = 0.3;  // of the pairs, beyond the tolerance

/// More than one sampling period of the daemon.
constexpr uint64_t kSamplePeriodNs = 100'000'000;

struct Pair {
  double arrivals_ns;
  double stamps;
  double period_ns;
};

/// Successive packets that came in time.
std::vector<Pair> PunctualPairs(const std::vector<PacketRecord>& packets) {
  std::vector<Pair> pairs;
  for (size_t i = 1; i < packets.size(); ++i) {
    const PacketRecord& a = packets[i - 1];
    const PacketRecord& b = packets[i];
    const bool punctual = b.arrival == flight::Arrival::kOnTime && b.period_ns != 0;
    if (!punctual || b.number != a.number + 1 || b.stamp <= a.stamp) continue;
    if (b.arrived_ns <= a.arrived_ns) continue;
    pairs.push_back({static_cast<double>(b.arrived_ns - a.arrived_ns),
                     static_cast<double>(b.stamp - a.stamp), static_cast<double>(b.period_ns)});
  }
  return pairs;
}

/// When it began.
uint64_t Begin(const EventView& event) {
  return event.at_ns - std::min(event.duration_ns, event.at_ns);
}

bool Overlaps(const EventView& event, uint64_t from_ns, uint64_t to_ns) {
  return Begin(event) <= to_ns && event.at_ns >= from_ns;
}

/// The last of the events in this time.
const EventView* LastOf(const std::vector<const EventView*>& events, uint64_t from_ns,
                        uint64_t to_ns) {
  const auto found = std::find_if(events.rbegin(), events.rend(), [&](const EventView* event) {
    return Overlaps(*event, from_ns, to_ns);
  });
  return found == events.rend() ? nullptr : *found;
}

}  // namespace

StampClock::StampClock(const std::vector<PacketRecord>& packets) {
  std::vector<Pair> pairs = PunctualPairs(packets);
  if (pairs.size() < kFewestPairs) return;
  const auto ratio = [](const Pair& pair) { return pair.arrivals_ns / pair.stamps; };
  const auto middle = pairs.begin() + static_cast<ptrdiff_t>(pairs.size() / 2);
  std::ranges::nth_element(pairs, middle, {}, ratio);
  const double median = ratio(*middle);
  const auto outside = std::ranges::count_if(
      pairs, [&](const Pair& pair) { return std::abs(ratio(pair) / median - 1) > kTolerance; });
  // Sample counts go on with the audio: exactly as much a period.
  const auto pace = [](const Pair& pair) { return pair.stamps / pair.period_ns; };
  const bool even = std::ranges::all_of(pairs, [&](const Pair& pair) {
    return std::abs(pace(pair) / pace(pairs.front()) - 1) < kEven;
  });
  if (even || static_cast<double>(outside) > kMostOutside * static_cast<double>(pairs.size())) {
    return;
  }
  ns_per_unit_ = median;
}

int64_t StampClock::BetweenNs(const PacketRecord& from, const PacketRecord& to) const {
  const auto units = static_cast<double>(static_cast<int64_t>(to.stamp - from.stamp));
  constexpr double kMost = 9e15;  // far beyond any log, and exact as a double
  return static_cast<int64_t>(std::clamp(units * ns_per_unit_, -kMost, kMost));
}

Scheduling::Scheduling(const StreamView& stream) : samples_(stream.scheduling) {
  std::vector<uint64_t> waits;
  for (size_t i = 1; i < samples_.size(); ++i) {
    const uint64_t before = samples_[i - 1].waited_ns;
    waits.push_back(samples_[i].waited_ns - std::min(samples_[i].waited_ns, before));
  }
  if (waits.empty()) return;
  const auto middle = waits.begin() + static_cast<ptrdiff_t>(waits.size() / 2);
  std::ranges::nth_element(waits, middle);
  usual_ns_ = *middle;
}

std::optional<ProcessorWait> Scheduling::WaitAround(uint64_t from_ns, uint64_t to_ns,
                                                    uint64_t began_ns) const {
  const auto after =
      std::ranges::find_if(samples_, [&](const auto& sample) { return sample.at_ns >= to_ns; });
  const auto found = std::find_if(std::make_reverse_iterator(after), samples_.rend(),
                                  [&](const auto& sample) { return sample.at_ns <= from_ns; });
  if (after == samples_.end() || found == samples_.rend()) return std::nullopt;
  const auto before = std::prev(found.base());
  if (before->at_ns < began_ns || after->waited_ns < before->waited_ns) return std::nullopt;
  const auto windows = static_cast<uint64_t>(after - before);
  const uint64_t waited_ns = after->waited_ns - before->waited_ns;
  ProcessorWait wait{.waited_ns = waited_ns - std::min(waited_ns, usual_ns_ * windows)};
  for (auto sample = before; sample < after; ++sample) {
    const uint64_t pause_ns = std::next(sample)->at_ns - sample->at_ns;
    wait.sampler_ns = std::max(wait.sampler_ns, pause_ns - std::min(pause_ns, kSamplePeriodNs));
  }
  return wait;
}

StreamEvents::StreamEvents(const FlightView& flight, const StreamView& stream) : flight_(flight) {
  std::map<std::string, bool> feeds;  // by tap: whether it feeds the stream
  for (const EventView& event : flight.events) {
    const bool own = event.subject == stream.name;
    switch (event.kind) {
      case EventKind::kDevice:
        if (event.text != "has other rights") devices_.push_back(&event);
        break;
      case EventKind::kClient:
        if (event.text == flight::kClientDied) deaths_.push_back(&event);
        break;
      case EventKind::kRoutes:
        if (!own) break;
        // Routes are also published anew as they are.
        if (event.text == "0" && !routes_.empty() && routes_.back()->text != "0") {
          disconnects_.push_back(&event);
        }
        routes_.push_back(&event);
        break;
      case EventKind::kStream:
        if (own) switches_.push_back(&event);
        if (own && event.text == "off") offs_.push_back(&event);
        break;
      case EventKind::kExchange:
        if (event.subject.empty()) break;
        if (feeds[event.subject]) taps_.push_back(&event);
        if (event.text.starts_with("bind ")) {
          const bool did_feed = feeds[event.subject];
          feeds[event.subject] = event.text.starts_with("bind " + stream.name + " ");
          if (!did_feed && feeds[event.subject]) taps_.push_back(&event);
        }
        break;
      default:
        break;
    }
  }
}

const EventView* StreamEvents::DeviceChange(uint64_t from_ns, uint64_t to_ns,
                                            const std::string& node) const {
  const auto found = std::ranges::find_if(devices_, [&](const EventView* event) {
    return event->at_ns >= from_ns && event->at_ns <= to_ns && event->subject.ends_with(node);
  });
  return found == devices_.end() ? nullptr : *found;
}

const EventView* StreamEvents::RouteChange(uint64_t from_ns, uint64_t to_ns) const {
  return LastOf(routes_, from_ns, to_ns);
}

const EventView* StreamEvents::LastDisconnect(uint64_t until_ns) const {
  const EventView* const last = LastOf(routes_, 0, until_ns);
  return last != nullptr && last->text == "0" ? LastOf(disconnects_, 0, until_ns) : nullptr;
}

const EventView* StreamEvents::SwitchingOff(uint64_t from_ns, uint64_t to_ns) const {
  return LastOf(offs_, from_ns, to_ns);
}

const EventView* StreamEvents::ClientDeath(uint64_t from_ns, uint64_t to_ns,
                                           const std::string& processor) const {
  const EventView* const death = LastOf(deaths_, from_ns, to_ns);
  return death != nullptr && death->subject == processor ? death : nullptr;
}

const EventView* StreamEvents::TapChange(uint64_t from_ns, uint64_t to_ns) const {
  return LastOf(taps_, from_ns, to_ns);
}

const EventView* StreamEvents::Switching(uint64_t from_ns, uint64_t to_ns) const {
  const auto found = std::ranges::find_if(
      switches_, [&](const EventView* event) { return Overlaps(*event, from_ns, to_ns); });
  return found == switches_.end() ? nullptr : *found;
}

const EventView* StreamEvents::CommandDuring(uint64_t at_ns, uint32_t pid) const {
  const auto found =
      std::find_if(flight_.events.rbegin(), flight_.events.rend(), [&](const EventView& event) {
        return event.kind == EventKind::kCommand && event.pid == pid &&
               Overlaps(event, at_ns, at_ns);
      });
  return found == flight_.events.rend() ? nullptr : &*found;
}

}  // namespace kvox::client
