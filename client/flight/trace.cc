// The verb trace: the flight log in the trace event format that the usual trace viewers open.
// Tracks are threads of a trace; packets, processors' and clients' work and writes are complete
// events ("X"), losses and device changes are instants ("i"), and flows ("s", "f") lead from a
// packet's arrival to its last write.

#include <map>

#include "client/flight/log_file.h"
#include "client/flight/verbs.h"
#include "client/output/json.h"
#include "client/system/files.h"
#include "kvox/common/fixed_text.h"
#include "kvox/common/four_cc.h"
#include "libkvox/flight/incidents.h"

namespace kvox::client {
namespace {

constexpr double kLast_s = 10;
constexpr int kProcess = 1;
constexpr size_t kChunk = 1 << 16;
constexpr char kHead[] = "{\"displayTimeUnit\":\"ms\",\"traceEvents\":[\n";

double Us(uint64_t ns) {
  return static_cast<double>(ns) * 1e-3;
}

const char* TrackOf(EventKind kind) {
  switch (kind) {
    case EventKind::kCommand:
    case EventKind::kCapture:
    case EventKind::kClient:
      return "commands";
    case EventKind::kExchange:
      return "control channel";
    case EventKind::kDevice:
    case EventKind::kRecovery:
    case EventKind::kDaemon:
    case EventKind::kClock:
      return "devices and recovery";
    case EventKind::kStream:
    case EventKind::kRoutes:
      return "buffers";
  }
  return "other";
}

/// Written to the file as it is made. Functions throw Failure when that fails.
class Trace {
 public:
  /// Times are from `begin_ns` on: wall-clock microseconds are too large for exact numbers.
  Trace(const FlightView& flight, uint64_t begin_ns, const std::string& path)
      : begin_ns_(begin_ns), path_(path), file_(CreateNew(path)) {
    Add({{"ph", "M"}, {"name", "process_name"}, {"args", {{"name", flight.program}}}}, 0);
  }

  void AddPacket(const StreamView& stream, const PacketRecord& packet) {
    const std::string name = "packet " + std::to_string(packet.number);
    const int track = TrackNumber(stream.name);
    Add(Span(name, packet.arrived_ns, packet.dispatch_ns,
             {{"stamp", packet.stamp},
              {"period_us", Us(packet.period_ns)},
              {"lost", packet.loss != flight::Loss::kNone}}),
        track);
    const uint64_t done_ns = packet.arrived_ns + packet.dispatch_ns;
    const uint64_t write_ns = std::min(packet.write_ns, packet.dispatch_ns);
    if (packet.slowest_id != 0) {
      const std::string id = EscapeControls(ToString(static_cast<FourCc>(packet.slowest_id)));
      const uint64_t begin_ns =
          done_ns - write_ns -
          std::min<uint64_t>(packet.slowest_ns, done_ns - write_ns - packet.arrived_ns);
      Add(Span(name, begin_ns, packet.slowest_ns), TrackNumber("processor " + id));
      if (packet.client_ns > 0) {
        Add(Span(name, begin_ns, packet.client_ns), TrackNumber("client of " + id));
      }
    }
    if (packet.written != 0) {
      const int writes = TrackNumber(stream.name + " writes");
      Add(Span(name, done_ns - write_ns, write_ns), writes);
      AddFlow("s", packet.arrived_ns, track);
      AddFlow("f", done_ns - write_ns, writes);
    }
    if (packet.missing > 0) {
      Add(Instant(std::to_string(packet.missing) + " missing", packet.arrived_ns), track);
    }
    if (packet.loss != flight::Loss::kNone) Add(Instant("lost", packet.arrived_ns), track);
  }

  void AddEvent(const EventView& event) {
    const std::string name = event.subject + (event.subject.empty() ? "" : " ") + event.text;
    Json args = {{"pid", event.pid}, {"status", event.status}};
    std::string title = TrackOf(event.kind);
    // Commands may overlap: those of a process are one after the other, mostly.
    if (event.kind == EventKind::kCommand) title += " of process " + std::to_string(event.pid);
    const int track = TrackNumber(title);
    if (event.kind == EventKind::kClock) return Add(Instant("wall clock set", event.at_ns), track);
    if (event.duration_ns == 0) return Add(Instant(name, event.at_ns), track);
    const uint64_t within_ns = std::min(event.duration_ns, event.at_ns - begin_ns_);
    Add(Span(name, event.at_ns - within_ns, within_ns, std::move(args)), track);
  }

  /// Returns how many events were written.
  size_t Finish() {
    text_ += "\n]}\n";
    Flush();
    return events_;
  }

 private:
  double At(uint64_t ns) const { return Us(ns - std::min(ns, begin_ns_)); }

  Json Span(const std::string& name, uint64_t begin_ns, uint64_t ns,
            Json args = Json::object()) const {
    return {{"ph", "X"},          {"name", name},  {"cat", "kvox"},
            {"ts", At(begin_ns)}, {"dur", Us(ns)}, {"args", std::move(args)}};
  }
  Json Instant(const std::string& name, uint64_t ns) const {
    return {{"ph", "i"}, {"name", name}, {"cat", "kvox"}, {"ts", At(ns)}, {"s", "t"}};
  }
  void AddFlow(const char* phase, uint64_t ns, int track) {
    if (*phase == 's') ++flows_;
    Json flow = {{"ph", phase}, {"name", "route"}, {"cat", "kvox"}, {"ts", At(ns)}, {"id", flows_}};
    if (*phase == 'f') flow["bp"] = "e";
    Add(flow, track);
  }

  int TrackNumber(const std::string& name) {
    const auto [found, added] = tracks_.emplace(name, static_cast<int>(tracks_.size()) + 1);
    if (added) {
      Add({{"ph", "M"}, {"name", "thread_name"}, {"args", {{"name", name}}}}, found->second);
    }
    return found->second;
  }

  void Add(Json event, int track) {
    event["pid"] = kProcess;
    event["tid"] = track;
    text_ += (events_ == 0 ? kHead : ",\n") + AsJson(event);
    ++events_;
    if (text_.size() >= kChunk) Flush();
  }

  void Flush() {
    if (WriteAll(file_.get(), text_.data(), text_.size())) return text_.clear();
    const int cause = errno;
    unlink(path_.c_str());
    throw Failure(kFailed, "cannot write " + path_ + ": " + ErrorText(cause).c_str() +
                               "; free some room, or name another file");
  }

  const uint64_t begin_ns_;
  const std::string path_;
  const UniqueFd file_;
  std::map<std::string, int> tracks_;
  std::string text_;
  uint64_t flows_ = 0;
  size_t events_ = 0;
};

}  // namespace

int WriteTrace(const Context& context) {
  const FlightView flight = OpenFlight(context.in);
  const uint64_t from_ns = BeginOf(context.in, flight, kLast_s);
  const std::string& path = context.in.Get("FILE");
  Trace trace(flight, from_ns, path);
  for (const StreamView& stream : flight.streams) {
    for (const PacketRecord& packet : stream.packets) {
      if (packet.arrived_ns >= from_ns) trace.AddPacket(stream, packet);
    }
  }
  for (const EventView& event : flight.events) {
    if (event.at_ns >= from_ns) trace.AddEvent(event);
  }
  const size_t events = trace.Finish();
  context.out.One({FormatText<64>("%zu events written to ", events) + path,
                   "open it in a viewer of trace events"},
                  Json::object({{"file", path}, {"events", events}}));
  return kDone;
}

}  // namespace kvox::client
