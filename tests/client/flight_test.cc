// What kvoxctl makes of a flight log: the blame for each kind of fault, metrics and traces.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <sstream>

#include "client/command_line/verb.h"
#include "client/flight/verbs.h"
#include "kvox/common/four_cc.h"
#include "libkvox/flight/incidents.h"

namespace kvox::client {
namespace {

using flight::Arrival;
using flight::Loss;
using testing::HasSubstr;

constexpr uint64_t kMs = 1'000'000;
constexpr uint64_t kStart = 1000 * kMs;
constexpr uint32_t kProcessor = static_cast<uint32_t>(MakeFourCc("art0"));

/// A stream of 10 ms packets whose stamps count half microseconds, with a little jitter, judged as
/// the daemon does it.
class Story {
 public:
  Story() {
    flight.injects = {{.name = "inject20"}};
    flight.streams.resize(1);
    flight.streams[0].name = "tapout20";
    Punctual(20);
  }

  /// Due a period after the one before.
  PacketRecord& Next(int64_t late_ms = 0, int64_t sent_late_ms = 0) {
    const int64_t jitter_ns = number_ % 2 == 0 ? 20'000 : -20'000;
    const auto at = [&](int64_t late, int64_t jitter) {
      return static_cast<uint64_t>(
          static_cast<int64_t>(due_ns_ + static_cast<uint64_t>(late) * kMs) + jitter);
    };
    PacketRecord packet = {};
    packet.number = number_++;
    packet.arrived_ns = at(late_ms, jitter_ns);
    packet.stamp =
        stamps_count_samples ? packet.number * 480 : at(sent_late_ms, jitter_ns / 2) / 500;
    packet.period_ns = 10 * kMs;
    packet.dispatch_ns = 50'000;
    packet.slowest_ns = 10'000;
    packet.slowest_id = kProcessor;
    packet.write_ns = 20'000;
    packet.failed_inject = flight::kNoInject;
    if (!packets().empty()) {
      const uint64_t interval_ns = packet.arrived_ns - packets().back().arrived_ns;
      packet.arrival = interval_ns < 7'500'000    ? Arrival::kEarly
                       : interval_ns > 12'500'000 ? Arrival::kLate
                                                  : Arrival::kOnTime;
    }
    due_ns_ += 10 * kMs;
    packets().push_back(packet);
    return packets().back();
  }
  void Punctual(int count) {
    for (int i = 0; i < count; ++i) Next();
  }
  /// After packets that never came.
  PacketRecord& AfterMissing(uint16_t count, Loss because) {
    number_ += count;
    due_ns_ += count * 10 * kMs;
    PacketRecord& packet = Next();
    packet.missing = count;
    packet.missing_because = because;
    return packet;
  }
  /// The audio stops for that long, and the numbers begin anew.
  PacketRecord& Restart(uint64_t pause_ms) {
    due_ns_ += pause_ms * kMs;
    PacketRecord& packet = Next();
    packet.flags = flight::kFirst;
    packet.arrival = Arrival::kOnTime;
    return packet;
  }
  void Sample(uint64_t at_ns, uint64_t waited_ns) {
    flight.streams[0].scheduling.push_back({at_ns, waited_ns});
  }
  /// Every 100 ms until now; the thread waits 3 ms in each, as on a busy machine.
  void UsualSamples() {
    uint64_t waited_ns = 0;
    for (uint64_t at_ns = kStart - 100 * kMs; at_ns < due_ns_ + 200 * kMs; at_ns += 100 * kMs) {
      Sample(at_ns, waited_ns += 3 * kMs);
    }
  }
  void Event(EventKind kind, const std::string& subject, const std::string& text, uint64_t at_ns,
             uint32_t pid = 0, uint64_t duration_ns = 0) {
    flight.events.push_back({at_ns, duration_ns, pid, 0, kind, subject, text});
  }
  /// A command of process `pid` that ends now and took 100 ms.
  void Command(uint32_t pid, const std::string& text) {
    Event(EventKind::kCommand, "", text, due_ns_, pid, 100 * kMs);
  }
  uint64_t now() const { return due_ns_; }
  std::vector<PacketRecord>& packets() { return flight.streams[0].packets; }

  std::vector<Incident> Incidents() const { return FindIncidents(flight, flight.streams[0], 0); }

  FlightView flight;
  bool stamps_count_samples = false;  // instead of telling when a packet was sent

 private:
  uint32_t number_ = 1000;
  uint64_t due_ns_ = kStart;
};

struct Case {
  const char* name;
  Cause cause;
  const char* culprit;
  std::function<void(Story&)> happens;
};

class BlameTest : public ::testing::TestWithParam<Case> {};

TEST_P(BlameTest, FindsTheOneCause) {
  Story story;
  GetParam().happens(story);
  story.Punctual(5);
  const std::vector<Incident> incidents = story.Incidents();
  std::string told;
  for (const Incident& incident : incidents) {
    told += std::string(CauseWord(incident.blame.cause)) + ": " + incident.blame.evidence + "\n";
  }
  ASSERT_EQ(incidents.size(), 1u) << told;
  EXPECT_STREQ(CauseWord(incidents[0].blame.cause), CauseWord(GetParam().cause)) << told;
  EXPECT_EQ(incidents[0].blame.culprit, GetParam().culprit);
  EXPECT_NE(incidents[0].blame.evidence, "");
}

const Case kCases[] = {
    {"SentLate", Cause::kCoprocessorLate, "", [](Story& s) { s.Next(8, 8); }},
    {"SentVeryLate", Cause::kCoprocessorLate, "",
     [](Story& s) {
       s.Next(25, 25);
       for (const int late : {15, 5}) s.Next(late, late).flags = flight::kQueued;
     }},
    {"SentEarly", Cause::kCoprocessorEarly, "", [](Story& s) { s.Next(-9, -9); }},
    {"Skipped", Cause::kCoprocessorSkipped, "",
     [](Story& s) {
       for (int i = 0; i < 3; ++i) s.AfterMissing(2, Loss::kJump);
       s.UsualSamples();
     }},
    {"TwiceSkippedIsASlip", Cause::kCoprocessorSkipped, "",
     [](Story& s) {
       s.AfterMissing(1, Loss::kJump);
       s.AfterMissing(1, Loss::kJump).loss = Loss::kSlip;
       s.AfterMissing(1, Loss::kSlip);
       s.UsualSamples();
     }},
    {"Repeated", Cause::kCoprocessorRepeated, "",
     [](Story& s) { s.Next().flags = flight::kRepeated; }},
    {"DeviceLate", Cause::kDeviceLate, "",
     [](Story& s) {
       s.Next(8);
       s.UsualSamples();
     }},
    {"NoProcessorForTheThread", Cause::kNoProcessorTime, "",
     [](Story& s) {
       s.UsualSamples();
       s.flight.streams[0].scheduling.pop_back();
       for (const int late : {30, 20, 10}) s.Next(late).flags = flight::kQueued;
       s.Sample(s.now() + 150 * kMs, s.flight.streams[0].scheduling.back().waited_ns + 36 * kMs);
     }},
    {"MachineStoodStill", Cause::kNoProcessorTime, "",
     [](Story& s) {
       s.UsualSamples();
       s.flight.streams[0].scheduling.resize(4);
       const auto last = s.flight.streams[0].scheduling.back();
       s.Next(25);
       for (const int late : {15, 5}) s.Next(late);
       s.Sample(last.at_ns + 125 * kMs, last.waited_ns);
     }},
    {"WithoutSamplesNobodyIsBlamed", Cause::kUndecided, "", [](Story& s) { s.Next(8); }},
    {"SamplesOfAnEarlierThreadDoNotCount", Cause::kUndecided, "",
     [](Story& s) {
       s.packets().clear();
       s.Sample(s.now() - kMs, 0);
       s.Next().flags = flight::kFirst;
       s.Next(8);
       s.Sample(s.now() + kMs, 40 * kMs);
     }},
    {"StampsThatCountSamplesTellNothing", Cause::kUndecided, "",
     [](Story& s) {
       s.packets().clear();
       s.stamps_count_samples = true;
       s.Punctual(20);
       s.Next(8);
       s.UsualSamples();
     }},
    {"SlowProcessor", Cause::kProcessorSlow, "art0",
     [](Story& s) {
       PacketRecord& busy = s.Next();
       busy.dispatch_ns = 28 * kMs;
       busy.slowest_ns = 27 * kMs;
       for (const int late : {18, 8}) s.Next(late).flags = flight::kQueued;
       s.UsualSamples();
     }},
    {"SlowProcessorUntilTheDeviceOverflows", Cause::kProcessorSlow, "art0",
     [](Story& s) {
       PacketRecord& busy = s.Next();
       busy.dispatch_ns = 58 * kMs;
       busy.slowest_ns = 57 * kMs;
       for (const int late : {48, 38}) s.Next(late).flags = flight::kQueued;
       PacketRecord& after = s.AfterMissing(3, Loss::kJump);
       after.flags = flight::kQueued;
       s.UsualSamples();
     }},
    {"SlowClient", Cause::kClientLate, "art0",
     [](Story& s) {
       PacketRecord& missed = s.Next();
       missed.dispatch_ns = 5 * kMs;
       missed.slowest_ns = 5 * kMs;
       missed.client_ns = 5 * kMs;
       missed.loss = Loss::kClientLate;
       s.Next().loss = Loss::kClientLate;  // still busy
     }},
    {"FullInject", Cause::kInjectFull, "inject20",
     [](Story& s) {
       PacketRecord& stalled = s.Next();
       stalled.loss = Loss::kInjectFull;
       stalled.failed_inject = 0;
       stalled.write_ns = 2 * kMs;
     }},
    {"AProcessDisconnected", Cause::kRewired, "process 4711",
     [](Story& s) {
       s.Event(EventKind::kRoutes, "tapout20", "1 inject20", kStart);
       s.Event(EventKind::kRoutes, "tapout20", "0", s.now() - kMs, 4711);
       s.Command(12, "Connect Kvox processor: of another");
       s.Command(4711, "Connect Kvox processor: ...");
       for (int i = 0; i < 60; ++i) s.Next().loss = Loss::kNoRoute;
       s.Event(EventKind::kRoutes, "tapout20", "1", s.now() - kMs, 12);
     }},
    {"AProcessSwitchedTheTap", Cause::kRewired, "process 4711",
     [](Story& s) {
       s.Event(EventKind::kExchange, "imic.0", "bind tapout20 inject20", kStart);
       s.Event(EventKind::kExchange, "imic.0", "disable", s.now() - kMs, 4711);
       s.Next(9, 9);
     }},
    {"AnotherTapDoesNotMatter", Cause::kCoprocessorLate, "",
     [](Story& s) {
       s.Event(EventKind::kExchange, "sspk.0", "bind tapout21 inject21", kStart);
       s.Event(EventKind::kExchange, "sspk.0", "disable", s.now() - kMs, 4711);
       s.Event(EventKind::kRoutes, "tapout20", "2", s.now() - kMs, 4711);
       s.Next(9, 9);
     }},
    {"AProcessSwitchedItOff", Cause::kRewired, "process 4711",
     [](Story& s) {
       s.Event(EventKind::kStream, "tapout20", "off", s.now(), 4711);
       s.Next().loss = Loss::kSwitchedOff;
       s.Event(EventKind::kDevice, "xdv-kvox_inject9", "left", s.now() + 500 * kMs);
       s.Restart(1000);
     }},
    {"TheDeviceFailedForGood", Cause::kReadErrors, "",
     [](Story& s) {
       s.Event(EventKind::kStream, "tapout20", "gave up", s.now() + kMs);
       s.Event(EventKind::kStream, "tapout20", "on", s.now() + 900 * kMs, 4711);
       s.Restart(1000);
     }},
    {"NobodyReads", Cause::kNoRoute, "",
     [](Story& s) {
       s.Event(EventKind::kRoutes, "tapout20", "0", s.now() - kMs, 4711);  // as it is switched on
       s.Next().loss = Loss::kNoRoute;
     }},
    {"AClientDied", Cause::kClientDied, "art0",
     [](Story& s) {
       s.Event(EventKind::kClient, "art0", "the client has died", s.now());
       s.Event(EventKind::kStream, "tapout20", "off", s.now());
       s.Event(EventKind::kStream, "tapout20", "on", s.now() + 900 * kMs, 4711);
       s.Restart(1000);
     }},
    {"RestartWhileAClientWaits", Cause::kRestart, "",
     [](Story& s) {
       s.Event(EventKind::kDevice, "xdv-kvox_tapout20", "left", s.now());
       s.Event(EventKind::kRoutes, "tapout20", "0", s.now());
       s.Command(4711, "Enable use case MIC_IN");
       s.Next().loss = Loss::kRewired;
       s.Restart(1000);
     }},
    {"Junk", Cause::kJunk, "", [](Story& s) { s.AfterMissing(1, Loss::kHeader); }},
    {"APacketThatIsCut", Cause::kJunk, "",
     [](Story& s) {
       s.Next(10);  // completed by the next one
       s.AfterMissing(1, Loss::kNoMagic);
       s.UsualSamples();
     }},
    {"ProcessorRefused", Cause::kProcessorRefused, "art0",
     [](Story& s) { s.Next().loss = Loss::kProcessor; }},
};
INSTANTIATE_TEST_SUITE_P(Faults, BlameTest, testing::ValuesIn(kCases),
                         [](const auto& test) { return test.param.name; });

TEST(IncidentsTest, ACauseExplainsOnlyWhatFollowsSoon) {
  Story story;
  story.Next(4, 4);
  story.Punctual(300);
  story.Next(-8, -8);
  story.Punctual(5);
  const auto incidents = story.Incidents();
  ASSERT_EQ(incidents.size(), 2u);
  EXPECT_EQ(incidents[1].blame.cause, Cause::kCoprocessorEarly);
}

TEST(IncidentsTest, NumbersThatBeginAnewAreOneInterruption) {
  Story story;
  story.Restart(500).flags = flight::kRepeated;  // only the next one tells
  story.Next().flags = flight::kFirst;
  story.Punctual(3);
  const auto incidents = story.Incidents();
  ASSERT_EQ(incidents.size(), 1u);
  EXPECT_EQ(incidents[0].interruptions, 1u);
  EXPECT_EQ(incidents[0].repeated, 0u);
  EXPECT_GT(incidents[0].longest_ns, 500 * kMs);
}

TEST(IncidentsTest, OnesOfTheSameCauseAreOneUntilTwoSecondsPass) {
  Story story;
  for (int i = 0; i < 3; ++i) {
    story.AfterMissing(1, Loss::kJump);
    story.Punctual(50);
  }
  story.Punctual(200);
  story.Next().loss = Loss::kProcessor;
  story.AfterMissing(1, Loss::kJump);
  const auto incidents = story.Incidents();
  ASSERT_EQ(incidents.size(), 3u);
  EXPECT_EQ(incidents[0].lost, 3u);
  EXPECT_EQ(incidents[1].blame.cause, Cause::kProcessorRefused);
  EXPECT_EQ(incidents[2].lost, 1u);
  EXPECT_EQ(FindIncidents(story.flight, story.flight.streams[0], incidents[1].first_ns).size(), 2u);
}

TEST(IncidentsTest, AdviceNamesOnlyVerbsThatExist) {
  for (size_t i = 0; i < kCauses; ++i) {
    const std::string advice = Advice(static_cast<Cause>(i));
    const size_t at = advice.find("kvoxctl ");
    if (at == std::string::npos) continue;
    std::istringstream words(advice.substr(at));
    std::string program, first, second;
    words >> program >> first >> second;
    EXPECT_TRUE(FindVerb("", first) != nullptr || FindVerb(first, second) != nullptr) << advice;
  }
}

/// A log may be damaged in ways that its checksums do not show.
TEST(IncidentsTest, AbsurdValuesAreSurvived) {
  for (const uint64_t extreme : {uint64_t{0}, UINT64_MAX, uint64_t{1} << 63}) {
    Story story;
    PacketRecord& packet = story.Next();
    packet.arrived_ns = extreme;
    packet.stamp = extreme;
    packet.period_ns = UINT32_MAX;
    packet.missing = UINT16_MAX;
    packet.loss = Loss::kInjectGone;
    packet.failed_inject = 200;
    packet.arrival = Arrival::kEarly;
    packet.flags = 0xFF;
    story.Sample(extreme, extreme);
    story.Event(EventKind::kDevice, "", "", extreme, 1, extreme);
    story.Event(EventKind::kCommand, "", "", extreme, 1, extreme);
    story.Punctual(3);
    story.Incidents();
  }
}

TEST(MetricsTest, CountersAndHistogramsHaveTheirLabels) {
  Story story;
  StreamView& stream = story.flight.streams[0];
  stream.name = "a\"b\\c";
  stream.dispatched = 7;
  stream.lost[static_cast<size_t>(Loss::kInjectFull)] = 3;
  ++stream.processing.counts[flight::BucketOf(3000)];
  stream.processing.sum = 3000;
  story.flight.injects[0].full = 3;
  const std::string text = MetricsText(story.flight);
  for (const char* line :
       {"kvox_packets_dispatched_total{stream=\"a\\\"b\\\\c\"} 7\n",
        "kvox_packets_lost_total{stream=\"a\\\"b\\\\c\",reason=\"inject_full\"} 3\n",
        "kvox_inject_packets_total{inject=\"inject20\",outcome=\"full\"} 3\n",
        "kvox_processing_seconds_bucket{stream=\"a\\\"b\\\\c\",le=\"2.048e-06\"} 0\n",
        "kvox_processing_seconds_bucket{stream=\"a\\\"b\\\\c\",le=\"4.096e-06\"} 1\n",
        "kvox_processing_seconds_sum{stream=\"a\\\"b\\\\c\"} 3e-06\n", "kvox_up 0\n"}) {
    EXPECT_THAT(text, HasSubstr(line));
  }
}

}  // namespace
}  // namespace kvox::client
