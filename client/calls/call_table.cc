#include "client/calls/call_table.h"

#include <algorithm>
#include <tuple>
#include <utility>

#include "client/calls/arguments.h"
#include "client/calls/audio_receiver.h"
#include "client/system/files.h"
#include "kvox/common/fixed_text.h"
#include "kvox/common/near_matches.h"

namespace kvox::client {
namespace {

using Status = ndk::ScopedAStatus;
using Words = std::vector<std::string>;

/// A packet has to fit into one transaction with everything around it.
constexpr size_t kMaxData = (1u << 20) - 1024;

constexpr float kLongestStay = 366.0f * 24 * 3600;

/// One argument of a method: its name on the command line, and how its word is read.
template <typename T>
struct Argument {
  const char* name;
  std::optional<T> (*parse)(std::string_view);
  const char* expected;
};

Argument<int32_t> Int(const char* name) {
  return {name, ParseInt, "a number"};
}
Argument<int32_t> Code(const char* name) {
  return {name, ParseCode, "four characters or a number"};
}
Argument<bool> Bool(const char* name) {
  return {name, ParseBool, "true, false, 1 or 0"};
}
Argument<float> Float(const char* name) {
  return {name, ParseFloat, "a decimal number"};
}
Argument<int8_t> Byte(const char* name) {
  return {name, ParseByte, "a number from -128 to 255"};
}
Argument<std::string> Text(const char* name) {
  return {name, ParseText, "a text in UTF-8"};
}
Argument<IKvox::UseCase> UseCase(const char* name) {
  return {name, ParseUseCase, "a use case's name or number"};
}
Argument<IKvox::ParameterId> Parameter(const char* name) {
  return {name, ParseParameterId, "a parameter's name or number"};
}

template <typename T>
T Read(const Argument<T>& argument, const std::string& word) {
  const std::optional<T> value = argument.parse(word);
  if (!value) {
    throw UsageError(std::string(argument.name) + ": '" + ValidUtf8(word) + "' is not " +
                     argument.expected);
  }
  return *value;
}

struct Row {
  std::string name;
  std::string arguments;
  size_t min_words;
  size_t max_words;
  std::function<PreparedCall(const Words&)> prepare;
};

/// "A B C"
template <typename... T>
std::string Names(const Argument<T>&... arguments) {
  std::string names;
  ((names += names.empty() ? arguments.name : std::string(" ") + arguments.name), ...);
  return names;
}

template <typename... T, size_t... Position>
std::tuple<T...> ReadEach(const Words& words, std::index_sequence<Position...>,
                          const Argument<T>&... arguments) {
  return {Read(arguments, words[Position])...};
}

template <typename... T>
std::tuple<T...> ReadAll(const Words& words, const Argument<T>&... arguments) {
  return ReadEach(words, std::index_sequence_for<T...>(), arguments...);
}

/// A method whose arguments are plain words and whose answer is a CommandResult alone.
template <typename Method, typename... T>
Row Plain(const char* name, Method method, Argument<T>... arguments) {
  return {name, Names(arguments...), sizeof...(T), sizeof...(T), [=](const Words& words) {
            return PreparedCall([=, values = ReadAll(words, arguments...)](IKvox& kvox,
                                                                           Answer& answer) {
              return std::apply(
                  [&](const auto&... value) { return (kvox.*method)(value..., &answer.result); },
                  values);
            });
          }};
}

const auto kProcessor = Code("PROCESSOR");
const auto kCore = Int("CORE");
const auto kTap = Code("TAP");
const auto kIndex = Int("INDEX");
const auto kEnable = Bool("ENABLE");
const auto kElement = Int("ELEMENT");
const auto kParameter = Parameter("PARAMETER");
const Argument<IKvox::ParamValue> kValue = {"VALUE", ParseParamValue, "i:960, f:0.5 or v:1,2,3"};
const Argument<std::vector<IKvox::ParamIdElementPair>> kPairs = {
    "PAIRS", ParsePairs, "a list such as BLOCK_LENGTH:0,9:0"};
const Argument<std::vector<IKvox::ParamValue>> kValues = {"VALUES", ParseValues,
                                                          "a list such as i:1,f:0.5"};

Row Ping() {
  return {"Ping", "", 0, 0,
          [](const Words&) { return [](IKvox& kvox, Answer&) { return kvox.Ping(); }; }};
}

Row Debug() {
  return {"Debug", "[WORD...]", 0, SIZE_MAX, [](const Words& words) {
            for (const std::string& word : words) Read(Text("WORD"), word);
            return
                [words](IKvox& kvox, Answer& answer) { return kvox.Debug(words, &answer.result); };
          }};
}

Row GetParameter() {
  return {"GetParameter", Names(kProcessor, kParameter, kElement), 3, 3, [](const Words& words) {
            return [values = ReadAll(words, kProcessor, kParameter, kElement)](IKvox& kvox,
                                                                               Answer& answer) {
              const auto& [processor, parameter, element] = values;
              return kvox.GetParameter(processor, parameter, element, &answer.param.emplace(),
                                       &answer.result);
            };
          }};
}

Row GetParameterBulk() {
  return {"GetParameterBulk", Names(kProcessor, kPairs), 2, 2, [](const Words& words) {
            return [values = ReadAll(words, kProcessor, kPairs)](IKvox& kvox, Answer& answer) {
              const auto& [processor, pairs] = values;
              return kvox.GetParameterBulk(processor, pairs, &answer.result,
                                           &answer.values.emplace());
            };
          }};
}

Row ProcessorGetStats() {
  return {"ProcessorGetStats", Names(kProcessor), 1, 1, [](const Words& words) {
            return [id = Read(kProcessor, words[0])](IKvox& kvox, Answer& answer) {
              return kvox.ProcessorGetStats(id, &answer.stats.emplace(), &answer.result);
            };
          }};
}

Row SendAudio() {
  return {"SendAudio", "PROCESSOR RATE FORMAT BITS CHANNELS FILE [PACKET_ID]", 6, 7,
          [](const Words& words) {
            IKvox::AudioPacket packet;
            const int32_t id = Read(kProcessor, words[0]);
            packet.sampleRate = Read(Byte("RATE"), words[1]);
            packet.format = Read(Byte("FORMAT"), words[2]);
            packet.bitsPerSample = Read(Byte("BITS"), words[3]);
            packet.numChannels = Read(Byte("CHANNELS"), words[4]);
            packet.data = ReadFile(words[5], kMaxData);
            packet.processor_id = words.size() > 6 ? Read(Code("PACKET_ID"), words[6]) : id;
            return [id, packet = std::move(packet)](IKvox& kvox, Answer& answer) {
              return kvox.SendAudio(id, packet, &answer.result);
            };
          }};
}

Row RegisterReceiveAudioCallback() {
  return {
      "RegisterReceiveAudioCallback", "PROCESSOR SECONDS FILE [reject]", 3, 4,
      [](const Words& words) {
        const int32_t id = Read(kProcessor, words[0]);
        const float seconds = Read(Float("SECONDS"), words[1]);
        if (!(seconds >= 0 && seconds <= kLongestStay)) {
          throw UsageError("SECONDS: '" + ValidUtf8(words[1]) + "' is not between 0 and a year");
        }
        const bool reject = words.size() > 3;
        if (reject && words[3] != "reject") {
          throw UsageError("'" + ValidUtf8(words[3]) + "' is not 'reject'");
        }
        auto receiver = AudioReceiver::Create(words[2], reject);
        return [=](IKvox& kvox, Answer& answer) {
          AudioReceiver::StartServing();
          auto status = kvox.RegisterReceiveAudioCallback(id, receiver, &answer.result);
          if (status.isOk() && answer.result.status == IKvox::CommandStatus::OK) {
            answer.afterwards = [binder = kvox.asBinder(), receiver, seconds] {
              return receiver->Stay(binder, seconds);
            };
          }
          return status;
        };
      }};
}

const std::vector<Row>& Rows() {
  static const std::vector<Row> rows = {
      Ping(),
      Plain("ShowGraph", &IKvox::ShowGraph),
      Plain("ListProcessors", &IKvox::ListProcessors),
      Plain("ListSupportedProcessors", &IKvox::ListSupportedProcessors),
      Plain("NewProcessor", &IKvox::NewProcessor, kProcessor),
      Plain("NewProcessorWithType", &IKvox::NewProcessorWithType, kProcessor, Code("TYPE")),
      Plain("DeleteProcessor", &IKvox::DeleteProcessor, kProcessor),
      Plain("ListSupportedUseCases", &IKvox::ListSupportedUseCases),
      Plain("Enable", &IKvox::Enable, Text("USECASE"), kEnable),
      Plain("IsEnabled", &IKvox::IsEnabled, Text("USECASE")),
      Plain("ProcessorInfo", &IKvox::ProcessorInfo, kProcessor),
      Plain("ProcessorEnable", &IKvox::ProcessorEnable, kProcessor, kEnable),
      Plain("ProcessorIsEnabled", &IKvox::ProcessorIsEnabled, kProcessor),
      Plain("TapList", &IKvox::TapList, kCore),
      Plain("TapInfo", &IKvox::TapInfo, kCore, kTap, kIndex),
      Plain("TapEnable", &IKvox::TapEnable, kCore, kTap, kIndex, kEnable),
      Plain("TapSetBlockLength", &IKvox::TapSetBlockLength, kCore, kTap, kIndex, Int("FRAMES")),
      Plain("ListTapOutBuffers", &IKvox::ListTapOutBuffers),
      Plain("ListInjectBuffers", &IKvox::ListInjectBuffers),
      Plain("Connect", &IKvox::Connect, kProcessor, Int("TAPOUT"), Int("INJECT")),
      Plain("ConnectTap", &IKvox::ConnectTap, kCore, kTap, kIndex, Int("TAPOUT"), Int("INJECT")),
      Plain("StartIo", &IKvox::StartIo, Int("TAPOUT")),
      Plain("StopIo", &IKvox::StopIo, Int("TAPOUT")),
      Debug(),
      Plain("EnableUseCase", &IKvox::EnableUseCase, UseCase("USECASE"), kEnable),
      Plain("IsUseCaseEnabled", &IKvox::IsUseCaseEnabled, UseCase("USECASE")),
      Plain("SetParameter", &IKvox::SetParameter, kProcessor, kParameter, kElement, kValue),
      GetParameter(),
      Plain("SetParameterBulk", &IKvox::SetParameterBulk, kProcessor, kPairs, kValues),
      GetParameterBulk(),
      Plain("ListParameters", &IKvox::ListParameters),
      SendAudio(),
      RegisterReceiveAudioCallback(),
      Plain("tapSetJitterBuffer", &IKvox::tapSetJitterBuffer, kCore, kTap, kIndex, Int("SIZE")),
      Plain("ProcessorSetStatsMaxBufferEntries", &IKvox::ProcessorSetStatsMaxBufferEntries,
            kProcessor, Int("ENTRIES")),
      ProcessorGetStats(),
      Plain("ProcessorResetStats", &IKvox::ProcessorResetStats, kProcessor),
      Plain("TapSetGain", &IKvox::TapSetGain, kCore, kTap, kIndex, Float("GAIN"), Int("RAMP_MS")),
      Plain("UseCaseSetGain", &IKvox::UseCaseSetGain, Text("USECASE"), Float("GAIN"),
            Int("RAMP_MS")),
  };
  return rows;
}

}  // namespace

PreparedCall PrepareCall(const std::string& method, const Words& words) {
  const std::vector<Row>& rows = Rows();
  const auto row = std::find_if(rows.begin(), rows.end(),
                                [&](const Row& candidate) { return candidate.name == method; });
  if (row == rows.end()) {
    std::vector<std::string> names;
    for (const Row& other : rows) names.push_back(other.name);
    throw UsageError("METHOD: " +
                     NotFound("method", method, names, "'kvoxctl call --help' lists them"));
  }
  if (words.size() < row->min_words) {
    throw UsageError(method + " takes " + row->arguments + "; " + std::to_string(words.size()) +
                     " given");
  }
  if (words.size() > row->max_words) {
    throw UsageError(method + ": unexpected argument '" + ValidUtf8(words[row->max_words]) +
                     "'; it takes " + (row->arguments.empty() ? "none" : row->arguments));
  }
  return row->prepare(words);
}

std::vector<std::string> DescribeMethods() {
  std::vector<std::string> texts;
  for (const Row& row : Rows()) {
    texts.push_back(row.arguments.empty() ? row.name : row.name + " " + row.arguments);
  }
  return texts;
}

}  // namespace kvox::client
