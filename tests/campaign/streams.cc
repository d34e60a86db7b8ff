#include "tests/campaign/streams.h"

#include <fmt/format.h>

namespace kvox::campaign {
namespace {

using std::chrono::milliseconds;

constexpr FourCc kPass = MakeFourCc("pass");
constexpr FourCc kRelay = MakeFourCc("arel");
constexpr FourCc kPhoneBooth = MakeFourCc("phbt");

// Long blocks: the daemon drops what comes a quarter of a block too early or too late twice in a
// row, and a busy machine is late by some milliseconds all the time.
constexpr Stream kStreams[] = {
    {MakeFourCc("genp"),
     0,
     2,
     0,
     MakeFourCc("ps00"),
     kPass,
     {},
     Control::kStatic,
     Returns::kExact,
     milliseconds(100),
     "channels = 2\nbits = 32\nblock_length = 4800\nsource = { kind = \"noise\", seed = 1 }"},
    {MakeFourCc("genp"),
     1,
     2,
     1,
     MakeFourCc("ps01"),
     kPass,
     {},
     Control::kStatic,
     Returns::kExact,
     milliseconds(50),
     "rate = 16000\nblock_length = 800\nsource = { kind = \"sweep\", to = 7000, seconds = 3 }"},
    {MakeFourCc("amic"),
     0,
     3,
     2,
     MakeFourCc("ps02"),
     kPass,
     {},
     Control::kStatic,
     Returns::kExact,
     milliseconds(100),
     "rate = 8000\nformat = \"sulaw\"\nblock_length = 800\nsource = { kind = \"noise\", seed = 2 "
     "}"},
    {MakeFourCc("adet"),
     0,
     3,
     3,
     MakeFourCc("ps03"),
     kPass,
     {},
     Control::kMutated,
     Returns::kExact,
     milliseconds(100),
     "channels = 2\nnoninterleaved = 480\nblock_length = 4800\n"
     "source = { kind = \"noise\", seed = 3 }"},
    {MakeFourCc("adet"),
     1,
     3,
     4,
     MakeFourCc("ps04"),
     kPass,
     {},
     Control::kMutated,
     Returns::kExact,
     milliseconds(100),
     "format = \"float\"\nblock_length = 4800\nsource = { kind = \"noise\", seed = 4 }"},
    {MakeFourCc("genp"),
     2,
     2,
     5,
     MakeFourCc("rl05"),
     kRelay,
     {},
     Control::kStatic,
     Returns::kEcho,
     milliseconds(100),
     "bits = 32\nblock_length = 4800\nsource = { kind = \"noise\", seed = 5 }"},
    {MakeFourCc("genp"),
     3,
     2,
     6,
     MakeFourCc("pb06"),
     kPhoneBooth,
     {},
     Control::kStatic,
     Returns::kSilence,
     milliseconds(100),
     "block_length = 4800\nsource = { kind = \"sine\" }"},
    {MakeFourCc("imic"), 0, 2, 20, MakeFourCc("pas1"), kPass, UseCase::MIC_IN, Control::kToggled,
     Returns::kExact, milliseconds(100),
     "channels = 2\nblock_length = 4800\nsource = { kind = \"sine\" }"},
    {MakeFourCc("sspk"), 0, 2, 21, MakeFourCc("pas2"), kPass, UseCase::SPEAKER_OUT,
     Control::kStatic, Returns::kExact, milliseconds(100),
     "channels = 2\nblock_length = 4800\nsource = { kind = \"sweep\", seconds = 5 }"},
    {MakeFourCc("vpdl"), 0, 4, 40, MakeFourCc("art0"), kRelay, UseCase::AREL_TELE, Control::kStatic,
     Returns::kEcho, milliseconds(100),
     "channels = 2\nnoninterleaved = 480\nblock_length = 4800\nsource = { kind = \"sine\" }"},
    {MakeFourCc("vpul"), 1, 4, 41, MakeFourCc("art1"), kRelay, UseCase::AREL_TELE, Control::kStatic,
     Returns::kEcho, milliseconds(100),
     "noninterleaved = 480\nblock_length = 4800\nsource = { kind = \"noise\", seed = 6 }"},
};

}  // namespace

std::string Stream::TapName() const {
  return fmt::format("{}.{}", ToString(tap), index);
}

std::span<const Stream> Streams() {
  return kStreams;
}

std::string ScenarioText() {
  std::string numbers;
  for (const Stream& stream : kStreams) {
    numbers += fmt::format("{}{}", numbers.empty() ? "" : ", ", stream.buffer);
  }
  std::string text = fmt::format("cores = [2, 3, 4]\ntapouts = [{0}]\ninjects = [{0}]\n", numbers);
  for (const Stream& stream : kStreams) {
    text += fmt::format("\n[[tap]]\nname = \"{}\"\nindex = {}\ncore = {}\n{}\n",
                        ToString(stream.tap), stream.index, stream.core, stream.format);
  }
  return text;
}

}  // namespace kvox::campaign
