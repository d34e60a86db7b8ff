#include "tests/campaign/client_part.h"

#include <fmt/format.h>

#include <algorithm>
#include <thread>

#include "libkvox/model/tables.h"

namespace kvox::campaign {
namespace {

/// Two seconds after the departure the daemon no longer waits for the node.
constexpr Ms kLossLimit = kRecoveryLimit + Ms(1500);

/// A buffer that does not exist, and as long as connections to it are requested.
constexpr int kNoSuchBuffer = 99;
constexpr Ms kRefusedTime{1000};
constexpr Ms kRefusedInterval{5};

/// From the start of a restart until every node has left.
constexpr Ms kLeavingTime{200};
constexpr Ms kLookUpInterval{100};

/// Stalled devices delay one packet of many by a quarter of its period.
constexpr double kMeanLatencyLimit_ms = 10;
constexpr uint64_t kInFlight = 2;

const Stream& StreamOf(int buffer) {
  return *std::ranges::find(Streams(), buffer, &Stream::buffer);
}

/// Of a tap, of the packets that came back between two samples.
double MeanLatencyMs(const TapStats& before, const TapStats& after) {
  const auto sum = [](const TapStats& tap) {
    return static_cast<double>(tap.latency_mean_us) * static_cast<double>(tap.exact);
  };
  const auto count = static_cast<double>(std::max<uint64_t>(after.exact - before.exact, 1));
  return (sum(after) - sum(before)) / count / 1000;
}

}  // namespace

void ClientPart::Start(const Injection& fault) {
  for (const std::string& command : fault.commands) testbed_.processes().sim().Fault(command);
}

void ClientPart::LoseNode(const Injection& fault) {
  Start(fault);
  StreamList others = testbed_.StaticStreams();
  std::erase_if(others, [&](const Stream* stream) {
    return fault.commands.front().ends_with(fmt::format("tapout{}", stream->buffer)) ||
           fault.commands.front().ends_with(fmt::format("inject{}", stream->buffer));
  });
  const auto time = testbed_.AwaitAudio(testbed_.StartAudioCheck(), others, kLossLimit,
                                        "with a node gone for good");
  if (time) slowest_without_node_ = std::max(slowest_without_node_, *time);
  testbed_.processes().sim().Restore();
}

void ClientPart::WishWhileAway(const Injection& fault) {
  static constexpr int kBuffers[] = {1, 2, 5};
  const auto stream = [&](size_t index) -> const Stream& {
    return StreamOf(kBuffers[(fault.choice + index) % std::size(kBuffers)]);
  };
  client_.StopIo(stream(0).buffer);
  Start(fault);
  if (fault.choice / 3 % 3 > 0) std::this_thread::sleep_for(kLeavingTime);
  if (fault.choice / 3 % 3 > 1) AwaitFirstBuffers();
  client_.StartIo(stream(0).buffer);
  client_.StopIo(stream(1).buffer);
  client_.ProcessorEnable(stream(2).processor, false);
  if (fault.choice / 9 % 2 == 0) client_.EnableUseCase(UseCase::SPEAKER_OUT);
}

/// Of a recovery, which restores nothing before that.
void ClientPart::AwaitFirstBuffers() {
  const auto until = Clock::now() + kLossLimit;
  const auto found = [&] {
    const CommandReply reply =
        testbed_.run().daemon.Call("ListTapOutBuffers", &IKvox::ListTapOutBuffers);
    return !client::ParseBuffers(client::Direction::kTapOut, reply.result.lines).rows.empty();
  };
  while (Clock::now() < until && !found()) std::this_thread::yield();
}

void ClientPart::TakeOverBuffer(const Injection& fault) {
  const size_t one = fault.choice / 4;
  const FanOut& taker = FanOuts()[one % FanOuts().size()];
  const Stream& loser = StreamOf(SpareTap().buffer);
  // A processor that a recovery has disabled, and a client connects, is the client's to enable.
  const auto take = [&](int inject) {
    client_.Connect(taker.processor, taker.tapout, inject);
    client_.ProcessorEnable(taker.processor, true);
  };
  switch (fault.choice % 4) {
    case 0:
      take(FanOuts()[(one + 1) % FanOuts().size()].inject);
      break;
    case 1:
      take(loser.buffer);
      break;
    default:
      client_.TapEnable(SpareTap(), true);
      client_.ConnectTap(SpareTap(), loser.buffer, loser.buffer);
      if (fault.choice % 4 == 3) client_.ConnectTap(loser, loser.buffer, loser.buffer);
  }
  Start(fault);
}

void ClientPart::LookUpWhileMute(const Injection& fault) {
  Start(fault);
  const auto until = Clock::now() + fault.lasts;
  while (Clock::now() < until && testbed_.CheckLookUps()) {
    std::this_thread::sleep_for(kLookUpInterval);
  }
}

void ClientPart::RequestRefusedConnects(const Injection&) {
  const auto request = [&](FourCc processor, int tapout, int inject) {
    const CommandReply reply = testbed_.run().daemon.Call(
        "Connect", &IKvox::Connect, static_cast<int32_t>(processor), tapout, inject);
    if (reply.delivered && !reply.ok()) return;
    testbed_.run().failures.Add("Connect {} to buffers {} and {} was not refused: {}",
                                ToString(processor), tapout, inject, reply.Text());
  };
  const auto until = Clock::now() + kRefusedTime;
  while (Clock::now() < until && testbed_.Healthy()) {
    for (const Stream& stream : Streams()) {
      if (stream.control != Control::kStatic) continue;
      request(stream.processor, stream.buffer, kNoSuchBuffer);
      request(stream.processor, FanOuts().front().tapout, kNoSuchBuffer);
      request(stream.processor, kNoSuchBuffer, stream.buffer);
      request(MakeFourCc("none"), stream.buffer, stream.buffer);
      std::this_thread::sleep_for(kRefusedInterval);
    }
  }
}

void ClientPart::MeasureFanOuts(const Injection& fault) {
  const std::string source = StreamOf(FanOuts().front().tapout).TapName();
  const Ms lag_before = testbed_.run().lag.Total();
  const SimStatus before = testbed_.processes().sim().Status();
  Start(fault);
  testbed_.RunFor(fault.lasts - kLeavingTime);
  const SimStatus after = testbed_.processes().sim().Status();
  const uint64_t sent = after.taps.at(source).sent - before.taps.at(source).sent;
  const double latency = MeanLatencyMs(before.taps.at(source), after.taps.at(source));
  const auto lag = static_cast<double>((testbed_.run().lag.Total() - lag_before).count());
  const double limit =
      kMeanLatencyLimit_ms + lag / static_cast<double>(std::max<uint64_t>(sent, 1));
  if (latency > limit) {
    testbed_.run().failures.Add(
        "{} came back after {:.1f} ms on average while others stalled; the limit is {:.1f} ms",
        source, latency, limit);
  }
  for (const FanOut& fan_out : FanOuts()) {
    const std::string stall = fmt::format("device=inject{} ", fan_out.inject);
    const bool stalled = std::ranges::any_of(
        fault.commands, [&](auto& command) { return command.find(stall) != command.npos; });
    const uint64_t came = after.injects.at(fan_out.inject) - before.injects.at(fan_out.inject);
    if (stalled || came + kInFlight >= sent) continue;
    testbed_.run().failures.Add("inject{} got {} of {} packets while others stalled",
                                fan_out.inject, came, sent);
  }
}

void ClientPart::RestoreStreams() {
  RestoreSpareTap();
  for (const Stream& stream : Streams()) {
    if (stream.control == Control::kStatic) RestoreStream(stream);
  }
  const ExpectedGraph graph = testbed_.run().graph.Copy();
  for (const FanOut& fan_out : FanOuts()) {
    const ExpectedProcessor& processor = graph.processors().at(fan_out.processor);
    if (processor.inject == fan_out.inject) continue;
    client_.Connect(fan_out.processor, fan_out.tapout, fan_out.inject);
  }
}

void ClientPart::RestoreSpareTap() {
  const ExpectedTap spare = testbed_.run().graph.Copy().TapOf(SpareTap());
  if (!spare.enabled && spare.tapout == kNone) return;
  const Stream& loser = StreamOf(SpareTap().buffer);
  client_.TapEnable(SpareTap(), false);
  client_.ConnectTap(SpareTap(), kNone, kNone);
  client_.ConnectTap(loser, loser.buffer, loser.buffer);
}

void ClientPart::RestoreStream(const Stream& stream) {
  const ExpectedGraph graph = testbed_.run().graph.Copy();
  const ExpectedProcessor processor = graph.ProcessorOf(stream);
  if (processor.inject != stream.buffer) {
    client_.Connect(stream.processor, stream.buffer, stream.buffer);
  }
  if (!processor.enabled && stream.returns != Returns::kSilence) {
    client_.ProcessorEnable(stream.processor, true);
  }
  if (!graph.tapouts().contains(stream.buffer)) client_.StartIo(stream.buffer);
}

}  // namespace kvox::campaign
