#include "tests/campaign/retrying_client.h"

#include <thread>
#include <utility>

namespace kvox::campaign {
namespace {

constexpr Ms kRetryInterval{50};

/// The co-processor has half a second for a reply. When threads had to wait this long for a CPU, a
/// late reply is not the daemon's fault.
constexpr Ms kStarved{100};

int32_t Signed(FourCc code) {
  return static_cast<int32_t>(code);
}

}  // namespace

template <typename Update, typename Method, typename... Arguments>
bool RetryingClient::Request(const char* name, const Update& update, Method method,
                             const Arguments&... arguments) {
  while (!run_.stopping && !run_.failures.any()) {
    const Moment sent = Now();
    const CommandReply reply = run_.daemon.Call(name, method, arguments...);
    ++run_.commands;
    if (reply.ok()) {
      run_.graph.Update(update);
      SetPending("");
      return true;
    }
    JudgeRefusal(name, sent, reply);
    SetPending(std::string(name) + ": " + reply.Text());
    std::this_thread::sleep_for(kRetryInterval);
  }
  return false;
}

void RetryingClient::JudgeRefusal(const char* name, const Moment& sent, const CommandReply& reply) {
  const Moment now = Now();
  if (!reply.delivered) {
    run_.failures.Add("{}: {} got no reply: {}", name_, name, reply.Text());
  } else if (FaultClock::StateIn(sent.epoch) != FaultState::kNone || now.epoch != sent.epoch) {
    ++run_.refused;
  } else if (now.lag - sent.lag >= kStarved) {
    ++run_.starved;
  } else {
    run_.failures.Add("{}: {} was refused although no fault is active: {}", name_, name,
                      reply.Text());
  }
}

CommandReply RetryingClient::Query(const char* name, const std::function<CommandReply()>& call) {
  const Moment sent = Now();
  CommandReply reply = call();
  ++run_.commands;
  if (!reply.ok()) JudgeRefusal(name, sent, reply);
  return reply;
}

void RetryingClient::SetPending(std::string text) {
  MutexLock lock(mutex_);
  pending_ = std::move(text);
}

std::string RetryingClient::Pending() const {
  MutexLock lock(mutex_);
  return pending_;
}

bool RetryingClient::NewProcessor(FourCc id, FourCc type) {
  return Request(
      "NewProcessorWithType", [&](auto& graph) { graph.NewProcessor(id, type); },
      &IKvox::NewProcessorWithType, Signed(id), Signed(type));
}

bool RetryingClient::DeleteProcessor(FourCc id) {
  return Request(
      "DeleteProcessor", [&](auto& graph) { graph.DeleteProcessor(id); }, &IKvox::DeleteProcessor,
      Signed(id));
}

bool RetryingClient::ProcessorEnable(FourCc id, bool enable) {
  return Request(
      "ProcessorEnable", [&](auto& graph) { graph.ProcessorEnable(id, enable); },
      &IKvox::ProcessorEnable, Signed(id), enable);
}

bool RetryingClient::Connect(FourCc id, int tapout, int inject) {
  return Request(
      "Connect", [&](auto& graph) { graph.Connect(id, tapout, inject); }, &IKvox::Connect,
      Signed(id), tapout, inject);
}

template <typename Method, typename... Arguments>
bool RetryingClient::TapRequest(const char* name, const Stream& stream,
                                const std::function<void(ExpectedGraph&)>& update, Method method,
                                const Arguments&... arguments) {
  return Request(name, update, method, stream.core, Signed(stream.tap), stream.index, arguments...);
}

bool RetryingClient::ConnectTap(const Stream& stream, int tapout, int inject) {
  return TapRequest(
      "ConnectTap", stream, [&](auto& graph) { graph.ConnectTap(stream.Id(), tapout, inject); },
      &IKvox::ConnectTap, tapout, inject);
}

bool RetryingClient::TapEnable(const Stream& stream, bool enable) {
  return TapRequest(
      "TapEnable", stream, [&](auto& graph) { graph.TapEnable(stream.Id(), enable); },
      &IKvox::TapEnable, enable);
}

bool RetryingClient::TapSetBlockLength(const Stream& stream, uint32_t frames) {
  return TapRequest(
      "TapSetBlockLength", stream,
      [&](auto& graph) { graph.TapSetBlockLength(stream.Id(), frames); }, &IKvox::TapSetBlockLength,
      Signed(frames));
}

bool RetryingClient::TapSetJitterBuffer(const Stream& stream, uint32_t size) {
  return TapRequest(
      "tapSetJitterBuffer", stream,
      [&](auto& graph) { graph.TapSetJitterBuffer(stream.Id(), size); }, &IKvox::tapSetJitterBuffer,
      Signed(size));
}

bool RetryingClient::StartIo(int tapout) {
  return Request(
      "StartIo", [&](auto& graph) { graph.StartIo(tapout); }, &IKvox::StartIo, tapout);
}

bool RetryingClient::StopIo(int tapout) {
  return Request(
      "StopIo", [&](auto& graph) { graph.StopIo(tapout); }, &IKvox::StopIo, tapout);
}

bool RetryingClient::EnableUseCase(UseCase use_case) {
  return Request(
      "EnableUseCase", [&](auto& graph) { graph.EnableUseCase(use_case, true); },
      &IKvox::EnableUseCase, use_case, true);
}

bool RetryingClient::DisableUseCase(UseCase use_case) {
  return Request(
      "EnableUseCase", [&](auto& graph) { graph.EnableUseCase(use_case, false); },
      &IKvox::EnableUseCase, use_case, false);
}

bool RetryingClient::RestoreTap(const Stream& stream) {
  const ExpectedTap tap = run_.graph.Copy().TapOf(stream);
  return ConnectTap(stream, tap.tapout, tap.inject) &&
         (!tap.block_length || TapSetBlockLength(stream, *tap.block_length)) &&
         (!tap.jitter_buffer || TapSetJitterBuffer(stream, *tap.jitter_buffer)) &&
         TapEnable(stream, tap.enabled);
}

}  // namespace kvox::campaign
