// Looking at the flight log: what the daemon has recorded of every packet.

#include "client/flight/log_file.h"
#include "client/flight/verbs.h"

namespace kvox::client {
namespace {

const char* WhyNotes() {
  return "It reads the flight log, which kvoxd writes while it runs, and calls nobody: it works "
         "while\n"
         "kvoxd hangs and after it has died. Each late, early, missing or refused packet has a "
         "cause,\n"
         "or is undecided where the evidence does not tell. The records of a stream reach back "
         "4096\n"
         "packets.\n";
}

const char* LatencyNotes() {
  return "The last write is that to the slowest of the inject buffers that the stream goes to.\n"
         "With --probe the co-processor must loop the relay's inject buffer back to the tap point "
         "that\n"
         "feeds the relay. Ten clicks are sent, one after the other; another client of the relay\n"
         "loses it for that time.\n";
}

}  // namespace

std::vector<Verb> FlightVerbs() {
  const Argument stream = {"STREAM", Kind::kTapOut, "Tap-out buffer (all)", Arity::kOptional};
  const Option last = {"--last", "SECONDS", Kind::kText, "How far to look back (60)"};
  return {
      {"why", "Say what went wrong with the audio, why, and what to do", Why,
       "why tapout20 --last 60s", Arguments{stream}, Options{last, kFlightOption}, WhyNotes,
       VerbKind::kWhy},
      {"latency", "Show how long kvoxd takes from a packet's arrival to its last write", Latency,
       "latency tapout20 inject20 --last 60s",
       Arguments{
           {"STREAM", Kind::kTapOut, "Tap-out buffer"},
           {"INJECT", Kind::kInject, "Inject buffer that its audio goes to", Arity::kOptional}},
       Options{last,
               {"--probe", "RELAY", Kind::kProcessor,
                "Also send clicks through this relay, and time their return"},
               kFlightOption},
       LatencyNotes, VerbKind::kStream},
      {"trace", "Write what happened as trace events, for a trace viewer", WriteTrace,
       "trace /tmp/kvox.json --last 10s",
       Arguments{{"FILE", Kind::kFile, "A file that does not exist"}},
       Options{{"--last", "SECONDS", Kind::kText, "How far to look back (10)"}, kFlightOption},
       nullptr, VerbKind::kFlight},
      {"metrics", "Print counters and histograms in the text format that Prometheus scrapes",
       Metrics, "metrics --listen 127.0.0.1:9469", Arguments{},
       Options{{"--listen", "ADDRESS:PORT", Kind::kText,
                "Serve them over HTTP, at /metrics, until interrupted"},
               kFlightOption},
       nullptr, VerbKind::kFlight},
      {"flight save", "Save the flight log for somebody else to look at", SaveFlight,
       "flight save /tmp/flight", Arguments{{"FILE", Kind::kFile, "A file that does not exist"}},
       Options{kFlightOption}, nullptr, VerbKind::kFlight},
      {"flight show", "Show what kvoxweb's flight recorder has kept", ShowFlight,
       "flight show ~/.local/state/kvox/2026-11-23T16.02.11.480-loss",
       Arguments{{"FOLDER", Kind::kFile, "A folder that it has kept"}}, Options{}, nullptr,
       VerbKind::kFlight},
  };
}

}  // namespace kvox::client
