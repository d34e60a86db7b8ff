// Recordings, as a replay reads them. Whatever the bytes are: time never goes back, only nodes of a
// co-processor are touched, and a daemon that sends what the recording has is found to do so.

#include <algorithm>
#include <span>
#include <stdexcept>

#include "fuzz/check.h"
#include "sim/recording/comparison.h"
#include "sim/recording/pcapng.h"
#include "sim/recording/recorded_replies.h"
#include "sim/recording/script.h"

namespace kvox::sim {
namespace {

using fuzz::Check;

void CheckScript(const Script& script) {
  Check(std::ranges::is_sorted(script.steps, {}, &Step::at_ns), "time never goes back");
  for (const Step& step : script.steps) {
    Check(step.kind == Step::Kind::kExpect || LinkTypeOf(step.node).has_value(),
          "names are those of nodes");
  }
  RecordedReplies replies(script);
  for (const Exchange& exchange : script.exchanges) {
    if (!exchange.is_before) replies.Take(exchange.command);
  }
  Check(replies.modelled() == 0, "each command of the recording has its reply there");
  const Sent sent{replies.commands(), script.injected};
  Check(Compare(script, sent).empty(), "a recording is like itself");
}

}  // namespace
}  // namespace kvox::sim

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const auto bytes = std::as_bytes(std::span(data, size));
  for (const uint64_t begin_ns : {uint64_t{0}, uint64_t{1'000'000'000}}) {
    try {
      kvox::sim::CheckScript(kvox::sim::ReadScript(bytes, begin_ns));
    } catch (const std::runtime_error&) {  // it is no recording
    }
  }
  return 0;
}
