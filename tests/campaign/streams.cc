#include "tests/campaign/streams.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

namespace kvox::campaign {
namespace {

constexpr FourCc kPass = MakeFourCc("pass");
constexpr FourCc kRelay = MakeFourCc("arel");
constexpr FourCc kPhoneBooth = MakeFourCc("phbt");
constexpr std::chrono::milliseconds kShortBlock{50};

using enum Control;
using enum Returns;

// Long blocks: the daemon drops what comes a quarter of a block too early or too late twice in a
// row, and a busy machine is late by some milliseconds all the time.
constexpr Stream kStreams[] = {
    {MakeFourCc("genp"), 0, 2, 0, MakeFourCc("ps00"), kPass, kStatic, kExact,
     R"(channels = 2, bits = 32, block_length = 4800, source = { kind = "noise", seed = 1 })"},
    {MakeFourCc("genp"), 1, 2, 1, MakeFourCc("ps01"), kPass, kStatic, kExact,
     R"(rate = 16000, block_length = 800, source = { kind = "sweep", to = 7000, seconds = 3 })",
     std::nullopt, kShortBlock},
    {MakeFourCc("amic"), 0, 3, 2, MakeFourCc("ps02"), kPass, kStatic, kExact,
     R"(rate = 8000, format = "sulaw", block_length = 800, source = { kind = "noise", seed = 2 })"},
    {MakeFourCc("adet"), 0, 3, 3, MakeFourCc("ps03"), kPass, kMutated, kExact,
     "channels = 2, noninterleaved = 480, block_length = 4800, "
     "source = { kind = 'noise', seed = 3 }"},
    {MakeFourCc("adet"), 1, 3, 4, MakeFourCc("ps04"), kPass, kMutated, kExact,
     R"(format = "float", block_length = 4800, source = { kind = "noise", seed = 4 })"},
    {MakeFourCc("genp"), 2, 2, 5, MakeFourCc("rl05"), kRelay, kStatic, kEcho,
     R"(bits = 32, block_length = 4800, source = { kind = "noise", seed = 5 })"},
    {MakeFourCc("genp"), 3, 2, 6, MakeFourCc("pb06"), kPhoneBooth, kStatic, kSilence,
     R"(block_length = 4800, source = { kind = "sine" })"},
    {MakeFourCc("imic"), 0, 2, 20, MakeFourCc("pas1"), kPass, kToggled, kExact,
     R"(channels = 2, block_length = 4800, source = { kind = "sine" })", UseCase::MIC_IN},
    {MakeFourCc("sspk"), 0, 2, 21, MakeFourCc("pas2"), kPass, kStatic, kExact,
     R"(channels = 2, block_length = 4800, source = { kind = "sweep", seconds = 5 })",
     UseCase::SPEAKER_OUT},
    {MakeFourCc("vpdl"), 0, 4, 40, MakeFourCc("art0"), kRelay, kStatic, kEcho,
     R"(channels = 2, noninterleaved = 480, block_length = 4800, source = { kind = "sine" })",
     UseCase::AREL_TELE},
    {MakeFourCc("vpul"), 1, 4, 41, MakeFourCc("art1"), kRelay, kStatic, kEcho,
     R"(noninterleaved = 480, block_length = 4800, source = { kind = "noise", seed = 6 })",
     UseCase::AREL_TELE},
    // The spare tap: that of the second stream in everything but its name and its audio.
    {MakeFourCc("spar"), 0, 2, 1, MakeFourCc("ps01"), kPass, kStatic, kExact,
     R"(rate = 16000, block_length = 800, source = { kind = "noise", seed = 7 })", std::nullopt,
     kShortBlock},
};

// So many that a quarter of a period for each would take longer than a period.
constexpr FanOut kFanOuts[] = {{MakeFourCc("fo60"), 0, 60}, {MakeFourCc("fo61"), 0, 61},
                               {MakeFourCc("fo62"), 0, 62}, {MakeFourCc("fo63"), 0, 63},
                               {MakeFourCc("fo64"), 0, 64}, {MakeFourCc("fo65"), 0, 65}};

std::string Joined(const std::vector<int>& numbers) {
  return fmt::format("{}", fmt::join(numbers, ", "));
}

}  // namespace

std::string Stream::TapName() const {
  return fmt::format("{}.{}", ToString(tap), index);
}

std::span<const Stream> Streams() {
  return Taps().first(std::size(kStreams) - 1);
}

const Stream& SpareTap() {
  return Taps().back();
}

std::span<const Stream> Taps() {
  return kStreams;
}

std::span<const FanOut> FanOuts() {
  return kFanOuts;
}

std::vector<int> InjectNumbers() {
  std::vector<int> numbers;
  for (const Stream& stream : Streams()) numbers.push_back(stream.buffer);
  for (const FanOut& fan_out : kFanOuts) numbers.push_back(fan_out.inject);
  return numbers;
}

std::string ScenarioText() {
  std::vector<int> tapouts;
  for (const Stream& stream : Streams()) tapouts.push_back(stream.buffer);
  std::string taps;
  for (const Stream& stream : Taps()) {
    taps += fmt::format("  {{ name = '{}', index = {}, core = {}, {} }},\n", ToString(stream.tap),
                        stream.index, stream.core, stream.scenario);
  }
  return fmt::format("cores = [2, 3, 4]\ntapouts = [{}]\ninjects = [{}]\ntap = [\n{}]\n",
                     Joined(tapouts), Joined(InjectNumbers()), taps);
}

}  // namespace kvox::campaign
