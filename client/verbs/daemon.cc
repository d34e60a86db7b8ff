#include <chrono>
#include <cmath>

#include "client/command_line/verb.h"
#include "kvox/common/fixed_text.h"

namespace kvox::client {
namespace {

int Ping(const Context& context) {
  using Clock = std::chrono::steady_clock;
  context.daemon.kvox();  // found before the clock runs
  const auto begin = Clock::now();
  context.daemon.Run("Ping", [](IKvox& kvox) { return kvox.Ping(); });
  const double round_trip_us =
      std::chrono::duration<double, std::micro>(Clock::now() - begin).count();
  context.out.One({FormatText<64>("kvoxd answers in %.1f us", round_trip_us)},
                  {{"round_trip_us", std::round(round_trip_us * 10) / 10}});
  return kDone;
}

}  // namespace

std::vector<Verb> DaemonVerbs() {
  return {
      {"", "ping", "See whether the daemon answers, and how fast", {}, {}, "ping", Ping},
  };
}

}  // namespace kvox::client
