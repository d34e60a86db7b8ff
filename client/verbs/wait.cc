#include <fmt/format.h>

#include <chrono>
#include <cmath>
#include <thread>

#include "client/verbs/shared.h"

namespace kvox::client {
namespace {

using Clock = std::chrono::steady_clock;

constexpr auto kPause = std::chrono::milliseconds(20);

/// A slow daemon gets time to report what is missing, even if --timeout has just expired.
constexpr auto kLeastForAnAnswer = std::chrono::milliseconds(1000);

/// Whether waiting may help.
bool MayChange(const Failure& failure) {
  return failure.status() == kNoDaemon || failure.status() == kNoObject ||
         failure.status() == kRefused;
}

/// Runs `check` until it throws no Failure, but no longer than --timeout.
template <typename Check>
int WaitFor(const Context& context, const std::string& what, Check check) {
  const auto begin = Clock::now();
  const auto whole = context.daemon.wait();
  for (;;) {
    std::string reason;
    try {
      const auto spent =
          std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - begin);
      context.daemon.set_wait(std::max(whole - spent, kLeastForAnAnswer));
      check();
      break;
    } catch (const Failure& failure) {
      if (!MayChange(failure)) throw;
      if (failure.status() == kNoDaemon) context.daemon.Disconnect();
      reason = failure.what();
    }
    if (Clock::now() + kPause - begin >= whole) {
      throw Failure(kTimedOut, fmt::format("{} did not come within {} s: {}", what,
                                           std::chrono::duration<double>(whole).count(), reason));
    }
    std::this_thread::sleep_for(kPause);
  }
  const double waited_ms = std::chrono::duration<double, std::milli>(Clock::now() - begin).count();
  context.out.One({}, Json::object({{"waited_ms", std::round(waited_ms * 10) / 10}}));
  return kDone;
}

int ForDaemon(const Context& context) {
  const auto ping = [](IKvox& kvox) { return kvox.Ping(); };
  return WaitFor(context, "an answer of kvoxd", [&] { context.daemon.Run("Ping", ping); });
}

int ForBuffer(const Context& context) {
  const std::string& word = context.in.Get("BUFFER");
  return WaitFor(context, "buffer " + word, [&] { LookUpBuffer(context.daemon, word); });
}

int ForTap(const Context& context) {
  const std::string& word = context.in.Get("TAP");
  return WaitFor(context, "tap point " + word, [&] { LookUpTap(context.daemon, word); });
}

int ForProcessor(const Context& context) {
  const std::string& word = context.in.Get("PROCESSOR");
  return WaitFor(context, "processor " + word, [&] {
    const ProcessorId id = LookUpProcessor(context.daemon, word);
    if (!context.in.Has("--enabled")) return;
    const auto result =
        context.daemon.Call("ProcessorIsEnabled", &IKvox::ProcessorIsEnabled, id.id);
    if (result.value == 0) {
      throw Failure(kRefused,
                    "it is not enabled; 'kvoxctl processor enable " + id.name + "' does that");
    }
  });
}

}  // namespace

std::vector<Verb> WaitVerbs() {
  std::vector<Verb> verbs = {
      {"wait daemon", "Wait until the daemon answers", ForDaemon, "--timeout 10 wait daemon"},
      {"wait buffer", "Wait until a buffer exists", ForBuffer, "wait buffer tapout0 --timeout 10",
       Arguments{{"BUFFER", Kind::kBuffer, "Buffer by name such as tapout0"}}},
      {"wait tap", "Wait until the co-processor has a tap point", ForTap,
       "wait tap imic.0 --timeout 10", Arguments{kTap}},
      {"wait processor", "Wait until a processor exists", ForProcessor,
       "wait processor art0 --enabled --timeout 10", Arguments{kProcessor},
       Options{{"--enabled", nullptr, Kind::kText, "And until it is enabled"}}},
  };
  for (Verb& verb : verbs) verb.kind = VerbKind::kWait;
  return verbs;
}

}  // namespace kvox::client
