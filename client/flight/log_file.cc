#include "client/flight/log_file.h"

#include <time.h>

#include <algorithm>
#include <cerrno>

#include "kvox/common/fixed_text.h"
#include "kvox/common/kvox_utils.h"
#include "libkvox/errors.h"
#include "platform/platform.h"

namespace kvox::client {
namespace {

constexpr double kNsPerSecond = 1e9;
constexpr float kLongest_s = 86'400;

}  // namespace

std::string FlightPath(const Input& in) {
  if (in.Has("--flight")) return in.Get("--flight");
  if (const auto path = FindFlight()) return *path;
  std::string looked_at;
  for (const std::string& directory : FlightDirectories()) {
    looked_at += (looked_at.empty() ? "" : ", ") + directory + "/" + flight::kFileName;
  }
  throw Failure(kNoDaemon, "there is no flight log (" + looked_at +
                               "): start kvoxd, or name a saved one with --flight");
}

flight::FlightView OpenFlight(const Input& in, const flight::Wanted& wanted) {
  std::string error;
  auto view = flight::ReadFlight(FlightPath(in), wanted, &error);
  if (!view) throw Failure(kFailed, error);
  return std::move(*view);
}

uint64_t EndOf(const flight::FlightView& flight) {
  if (flight.live) return GetTimestampNs();
  uint64_t end_ns = flight.started_ns;
  for (const auto& stream : flight.streams) {
    if (!stream.packets.empty()) end_ns = std::max(end_ns, stream.packets.back().arrived_ns);
  }
  if (!flight.events.empty()) end_ns = std::max(end_ns, flight.events.back().at_ns);
  return end_ns;
}

uint64_t BeginOf(const Input& in, const flight::FlightView& flight, double absent_s) {
  double seconds = absent_s;
  if (in.Has("--last")) {
    Input number;
    std::string word = in.Get("--last");
    if (word.ends_with('s')) word.pop_back();
    number.words["--last"] = {word};
    seconds =
        static_cast<double>(
            number.Seconds("--last", 0.001f, kLongest_s, std::chrono::milliseconds()).count()) /
        1000;
  }
  const uint64_t end_ns = EndOf(flight);
  return end_ns - std::min(end_ns, static_cast<uint64_t>(seconds * kNsPerSecond));
}

std::vector<const flight::StreamView*> StreamsOf(const Input& in,
                                                 const flight::FlightView& flight) {
  std::vector<const flight::StreamView*> streams;
  const std::string& name = in.Get("STREAM");
  std::string names;
  for (const auto& stream : flight.streams) {
    names += " " + stream.name;
    if (name.empty() || stream.name == name) streams.push_back(&stream);
  }
  if (name.empty() || !streams.empty()) return streams;
  throw Failure(kNoObject, "the flight log has no stream '" + EscapeControls(name) +
                               (names.empty() ? "', and no other" : "'; it has" + names));
}

uint64_t WallNs(const flight::FlightView& flight, uint64_t at_ns) {
  const auto step = std::ranges::find_if(flight.events, [&](const flight::EventView& event) {
    return event.kind == flight::EventKind::kClock && event.at_ns > at_ns;
  });
  return at_ns + (step == flight.events.end() ? flight.wall_offset_ns : step->duration_ns);
}

std::string LocalDate(const flight::FlightView& flight, uint64_t at_ns) {
  const auto seconds = static_cast<time_t>(WallNs(flight, at_ns) / 1'000'000'000);
  tm parts{};
  localtime_r(&seconds, &parts);
  char text[32];
  strftime(text, sizeof text, "%Y-%m-%d", &parts);
  return text;
}

std::string LocalTime(const flight::FlightView& flight, uint64_t at_ns) {
  const uint64_t wall_ns = WallNs(flight, at_ns);
  const auto seconds = static_cast<time_t>(wall_ns / 1'000'000'000);
  tm parts{};
  localtime_r(&seconds, &parts);
  return FormatText<32>("%02d:%02d:%02d.%03u", parts.tm_hour, parts.tm_min, parts.tm_sec,
                        static_cast<unsigned>(wall_ns / 1'000'000 % 1000));
}

}  // namespace kvox::client
