// The verb metrics: the flight log's counters and histograms as text that monitoring systems
// scrape.

#include <array>

#include "client/flight/log_file.h"
#include "client/flight/scrape_server.h"
#include "client/flight/verbs.h"
#include "kvox/common/fixed_text.h"
#include "kvox/flight/loss_names.h"
#include "libkvox/flight/incidents.h"

namespace kvox::client {
namespace {

using flight::StreamView;

struct CounterRow {
  const char* name;
  const char* help;
  uint64_t StreamView::*value;
};
constexpr CounterRow kCounters[] = {
    {"kvox_packets_dispatched_total", "Packets that every route took.", &StreamView::dispatched},
    {"kvox_packets_repeated_total", "Packets whose number had come before.", &StreamView::repeated},
    {"kvox_packets_early_total", "Packets before 0.75 of their period.", &StreamView::early},
    {"kvox_packets_late_total", "Packets after 1.25 of their period.", &StreamView::late},
    {"kvox_stream_renumbered_total", "Times that packet numbers began anew.",
     &StreamView::renumbered},
    {"kvox_stream_junk_bytes_total", "Bytes of reads that held no packet.",
     &StreamView::junk_bytes},
};

struct HistogramRow {
  const char* name;
  const char* help;
  flight::Distribution StreamView::*value;
};
constexpr HistogramRow kHistograms[] = {
    {"kvox_arrival_error_seconds", "Distance of arrivals from the nominal period.",
     &StreamView::arrival_error},
    {"kvox_processing_seconds", "Time of a packet's slowest processor.", &StreamView::processing},
    {"kvox_writing_seconds", "Time of a packet's writes to inject devices.", &StreamView::writing},
    {"kvox_client_seconds", "Longest wait for a client of a packet.", &StreamView::client},
};

struct InjectRow {
  const char* outcome;
  uint64_t flight::InjectView::*value;
};
constexpr InjectRow kInjectCounters[] = {{"written", &flight::InjectView::written},
                                         {"full", &flight::InjectView::full},
                                         {"gone", &flight::InjectView::gone}};

/// Bounds of buckets in the text: the octaves from 1 us to 8 s.
constexpr size_t kFirstOctave = 10;
constexpr size_t kLastOctave = 33;

double Seconds(uint64_t ns) {
  return static_cast<double>(ns) * 1e-9;
}

std::string Label(const std::string& value) {
  std::string text = "\"";
  for (const char c : value) {
    if (c == '"' || c == '\\') text += '\\';
    text += c;
  }
  return text + "\"";
}

void Head(const char* name, const char* type, const char* help, std::string& text) {
  text += std::string("# HELP ") + name + " " + help + "\n# TYPE " + name + " " + type + "\n";
}

void AddHistogram(const HistogramRow& row, const StreamView& stream, std::string& text) {
  const flight::Distribution& values = stream.*row.value;
  const std::string labels = "{stream=" + Label(stream.name);
  const std::string bucket_name = std::string(row.name) + "_bucket" + labels;
  uint64_t sum = 0;
  size_t bucket = 0;
  for (size_t octave = kFirstOctave; octave <= kLastOctave; ++octave) {
    const uint64_t bound = uint64_t{1} << octave;
    while (bucket < flight::kBuckets && flight::BucketFloor(bucket) < bound) {
      sum += values.counts[bucket++];
    }
    text += bucket_name + FormatText<96>(",le=\"%.9g\"} %llu\n", Seconds(bound),
                                         static_cast<unsigned long long>(sum));
  }
  const std::string total = " " + std::to_string(values.Total()) + "\n";
  text += bucket_name + ",le=\"+Inf\"}" + total;
  text += row.name + ("_sum" + labels) + FormatText<64>("} %.9g\n", Seconds(values.sum));
  text += row.name + ("_count" + labels) + "}" + total;
}

}  // namespace

std::string MetricsText(const FlightView& flight) {
  std::string text;
  Head("kvox_up", "gauge", "Whether the daemon that writes the flight log runs.", text);
  text += std::string("kvox_up ") + (flight.live ? "1" : "0") + "\n";
  const auto sample = [&](const std::string& name, const std::string& labels, uint64_t value) {
    text += name + "{" + labels + "} " + std::to_string(value) + "\n";
  };
  const auto of = [](const StreamView& stream) { return "stream=" + Label(stream.name); };
  Head("kvox_stream_on", "gauge", "Whether the tap-out buffer is on.", text);
  for (const auto& stream : flight.streams) sample("kvox_stream_on", of(stream), stream.on);
  for (const CounterRow& row : kCounters) {
    Head(row.name, "counter", row.help, text);
    for (const auto& stream : flight.streams) sample(row.name, of(stream), stream.*row.value);
  }
  constexpr const char* kLost = "kvox_packets_lost_total";
  Head(kLost, "counter", "Packets that were lost, each for one reason.", text);
  for (const auto& stream : flight.streams) {
    for (size_t i = 1; i < flight::kLosses; ++i) {
      sample(kLost, of(stream) + ",reason=" + Label(flight::kLossNames[i]), stream.lost[i]);
    }
  }
  constexpr const char* kInject = "kvox_inject_packets_total";
  Head(kInject, "counter", "Packets for an inject buffer, by what became of them.", text);
  for (const auto& inject : flight.injects) {
    for (const InjectRow& row : kInjectCounters) {
      if (inject.name.empty()) continue;
      sample(kInject, "inject=" + Label(inject.name) + ",outcome=" + Label(row.outcome),
             inject.*row.value);
    }
  }
  for (const HistogramRow& row : kHistograms) {
    Head(row.name, "histogram", row.help, text);
    for (const auto& stream : flight.streams) AddHistogram(row, stream, text);
  }
  return text + "# EOF\n";
}

int Metrics(const Context& context) {
  const auto text = [&] {
    return MetricsText(OpenFlight(context.in, {.packets = false, .events = false}));
  };
  if (context.in.Has("--listen")) return ServeScrapes(context, text);
  PrintOut(text());
  return kDone;
}

}  // namespace kvox::client
