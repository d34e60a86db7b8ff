#include "client/calls/call_table.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <thread>
#include <tuple>
#include <type_traits>
#include <utility>

#include "client/system/files.h"
#include "kvox/common/fixed_text.h"
#include "kvox/common/log.h"
#include "kvox/common/near_matches.h"
#include "libkvox/calls/arguments.h"
#include "libkvox/calls/daemon.h"
#include "libkvox/errors.h"

namespace kvox::client {
namespace {

using Status = ndk::ScopedAStatus;
using Words = std::vector<std::string>;

/// A packet and its envelope must fit into one transaction.
constexpr size_t kMaxData = (1u << 20) - 1024;

constexpr float kLongestStay = 366.0f * 24 * 3600;
constexpr auto kAlivePoll = std::chrono::milliseconds(50);

/// One input of a method: its name on the command line, and how its word is parsed.
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

/// Where a method puts an output of this type.
template <typename Output>
Output* OutputOf(MethodOutputs& outputs) {
  if constexpr (std::is_same_v<Output, IKvox::CommandResult>) return &outputs.result;
  if constexpr (std::is_same_v<Output, IKvox::ParamValue>) return &outputs.param.emplace();
  if constexpr (std::is_same_v<Output, std::vector<IKvox::ParamValue>>) {
    return &outputs.values.emplace();
  }
  if constexpr (std::is_same_v<Output, IKvox::ProcessorStats>) return &outputs.stats.emplace();
}

/// A method's first parameters are its inputs; the others, pointers, are its outputs.
template <typename... Parameters, typename... Inputs, size_t... Output>
Status Invoke(IKvox& kvox, Status (IKvox::*method)(Parameters...),
              const std::tuple<Inputs...>& inputs, MethodOutputs& outputs,
              std::index_sequence<Output...>) {
  using All = std::tuple<Parameters...>;
  return std::apply(
      [&](const auto&... input) {
        return (kvox.*method)(
            input...,
            OutputOf<std::remove_pointer_t<std::tuple_element_t<sizeof...(Inputs) + Output, All>>>(
                outputs)...);
      },
      inputs);
}

/// A method whose inputs are plain words.
template <typename... Parameters, typename... T>
Row Plain(const char* name, Status (IKvox::*method)(Parameters...), Argument<T>... arguments) {
  using Outputs = std::make_index_sequence<sizeof...(Parameters) - sizeof...(T)>;
  return {name, Names(arguments...), sizeof...(T), sizeof...(T), [=](const Words& words) {
            return [=, inputs = ReadAll(words, arguments...)](IKvox& kvox, MethodOutputs& outputs) {
              return Invoke(kvox, method, inputs, outputs, Outputs());
            };
          }};
}

const auto kProcessor = Code("PROCESSOR");
const auto kCore = Int("CORE");
const auto kTap = Code("TAP");
const auto kIndex = Int("INDEX");
const auto kEnable = Bool("ENABLE");
const auto kElement = Int("ELEMENT");
const Argument<IKvox::UseCase> kUseCase = {"USECASE", ParseUseCase, "a use case's name or number"};
const Argument<IKvox::ParameterId> kParameter = {"PARAMETER", ParseParameterId,
                                                 "a parameter's name or number"};
const Argument<IKvox::ParamValue> kValue = {"VALUE", ParseParamValue, "i:960, f:0.5 or v:1,2,3"};
const Argument<std::vector<IKvox::ParamIdElementPair>> kPairs = {
    "PAIRS", ParsePairs, "a list such as BLOCK_LENGTH:0,9:0"};
const Argument<std::vector<IKvox::ParamValue>> kValues = {"VALUES", ParseValues,
                                                          "a list such as i:1,f:0.5"};

Row Debug() {
  return {"Debug", "[WORD...]", 0, SIZE_MAX, [](const Words& words) {
            for (const std::string& word : words) Read(Text("WORD"), word);
            return [words](IKvox& kvox, MethodOutputs& outputs) {
              return kvox.Debug(words, &outputs.result);
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
            return [id, packet = std::move(packet)](IKvox& kvox, MethodOutputs& outputs) {
              return kvox.SendAudio(id, packet, &outputs.result);
            };
          }};
}

/// Appends the audio to a file; refuses packets if that fails, or on request.
std::shared_ptr<AudioCallback> MakeReceiver(const std::string& path, bool reject) {
  return ndk::SharedRefBase::make<AudioCallback>(
      [file = std::make_shared<UniqueFd>(OpenToAppend(path)), reject,
       failed = false](const IKvox::AudioPacket& packet) mutable {
        if (!failed && !WriteAll(file->get(), packet.data.data(), packet.data.size())) {
          failed = true;
          LogError("FILE: cannot write on: %s; packets are refused from now on",
                   std::strerror(errno));
        }
        return !reject && !failed;
      });
}

/// False as soon as the daemon behind `binder` is gone.
bool WaitAlive(const ndk::SpAIBinder& binder, float seconds) {
  using Clock = std::chrono::steady_clock;
  const auto until = Clock::now() + std::chrono::duration_cast<Clock::duration>(
                                        std::chrono::duration<float>(seconds));
  while (Clock::now() < until) {
    if (!AIBinder_isAlive(binder.get())) return false;
    std::this_thread::sleep_for(std::min<Clock::duration>(kAlivePoll, until - Clock::now()));
  }
  return true;
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
        auto receiver = MakeReceiver(words[2], reject);
        return [=](IKvox& kvox, MethodOutputs& outputs) {
          ServeCallbacks();
          auto status = kvox.RegisterReceiveAudioCallback(id, receiver, &outputs.result);
          if (status.isOk() && outputs.result.status == IKvox::CommandStatus::OK) {
            outputs.afterwards = [binder = kvox.asBinder(), receiver, seconds] {
              return WaitAlive(binder, seconds);
            };
          }
          return status;
        };
      }};
}

const std::vector<Row>& Rows() {
  static const std::vector<Row> rows = {
      Plain("Ping", &IKvox::Ping),
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
      Plain("EnableUseCase", &IKvox::EnableUseCase, kUseCase, kEnable),
      Plain("IsUseCaseEnabled", &IKvox::IsUseCaseEnabled, kUseCase),
      Plain("SetParameter", &IKvox::SetParameter, kProcessor, kParameter, kElement, kValue),
      Plain("GetParameter", &IKvox::GetParameter, kProcessor, kParameter, kElement),
      Plain("SetParameterBulk", &IKvox::SetParameterBulk, kProcessor, kPairs, kValues),
      Plain("GetParameterBulk", &IKvox::GetParameterBulk, kProcessor, kPairs),
      Plain("ListParameters", &IKvox::ListParameters),
      SendAudio(),
      RegisterReceiveAudioCallback(),
      Plain("tapSetJitterBuffer", &IKvox::tapSetJitterBuffer, kCore, kTap, kIndex, Int("SIZE")),
      Plain("ProcessorSetStatsMaxBufferEntries", &IKvox::ProcessorSetStatsMaxBufferEntries,
            kProcessor, Int("ENTRIES")),
      Plain("ProcessorGetStats", &IKvox::ProcessorGetStats, kProcessor),
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
