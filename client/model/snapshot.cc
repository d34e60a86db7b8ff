#include "client/model/snapshot.h"

#include <algorithm>
#include <iterator>
#include <numeric>

#include "kvox/common/four_cc.h"

namespace kvox::client {
namespace {

/// The method's answer. Throws Failure when its status is not OK.
template <typename Method, typename... T>
Lines Ask(Daemon& daemon, const char* name, Method method, const T&... arguments) {
  IKvox::CommandResult result = daemon.Call(name, method, arguments...);
  if (result.status != IKvox::CommandStatus::OK) {
    const std::string last = result.lines.empty() ? name : SplitLines(result.lines).back();
    throw Failure(kRefused, std::string(name) + " failed: " +
                                (result.lines.size() < 2 ? "" : *(result.lines.end() - 2) + "; ") +
                                last + "; the daemon's log tells more");
  }
  return std::move(result.lines);
}

template <typename Read>
auto Tell(Lines lines, Read read) {
  auto rows = read(lines);
  return Told<typename decltype(rows.items)::value_type>{std::move(rows.items), rows.unread,
                                                         std::move(lines), std::move(rows.cut)};
}

Told<std::string> TellNames(Lines lines) {
  std::vector<std::string> names = ReadNames(lines);
  return {std::move(names), 0, std::move(lines)};
}

}  // namespace

Told<Processor> AskProcessors(Daemon& daemon) {
  return Tell(Ask(daemon, "ListProcessors", &IKvox::ListProcessors), ReadProcessors);
}

Told<TapPoint> AskTaps(Daemon& daemon, int core) {
  return Tell(Ask(daemon, "TapList", &IKvox::TapList, core),
              [core](const Lines& lines) { return ReadTaps(core, lines); });
}

Told<Buffer> AskBuffers(Daemon& daemon, Direction direction) {
  Lines lines = direction == Direction::kTapOut
                    ? Ask(daemon, "ListTapOutBuffers", &IKvox::ListTapOutBuffers)
                    : Ask(daemon, "ListInjectBuffers", &IKvox::ListInjectBuffers);
  return Tell(std::move(lines),
              [direction](const Lines& text) { return ReadBuffers(direction, text); });
}

Told<Path> AskGraph(Daemon& daemon) {
  return Tell(Ask(daemon, "ShowGraph", &IKvox::ShowGraph), ReadGraph);
}

Told<std::string> AskTypes(Daemon& daemon) {
  return TellNames(Ask(daemon, "ListSupportedProcessors", &IKvox::ListSupportedProcessors));
}

Told<std::string> AskUseCases(Daemon& daemon) {
  return TellNames(Ask(daemon, "ListSupportedUseCases", &IKvox::ListSupportedUseCases));
}

Told<std::string> AskParameters(Daemon& daemon) {
  return TellNames(Ask(daemon, "ListParameters", &IKvox::ListParameters));
}

std::optional<Settings> AskSettings(Daemon& daemon, const std::string& processor) {
  IKvox::CommandResult result;
  std::vector<IKvox::ParamValue> values;
  daemon.Run("GetParameterBulk", [&](IKvox& kvox) {
    return kvox.GetParameterBulk(CodeOf(processor), SettingsPairs(), &result, &values);
  });
  return ReadSettings(values);
}

std::optional<bool> AskUseCase(Daemon& daemon, const std::string& name) {
  const IKvox::CommandResult result = daemon.Call("IsEnabled", &IKvox::IsEnabled, name);
  if (result.status != IKvox::CommandStatus::OK) return std::nullopt;
  return result.value != 0;
}

int32_t CodeOf(const std::string& name) {
  FourCc code = 0;
  for (size_t i = 0; i < 4; ++i) {
    code = code << 8 | (i < name.size() ? static_cast<uint8_t>(name[i]) : uint8_t{' '});
  }
  return static_cast<int32_t>(code);
}

std::string NamesOfCores(const std::vector<int>& cores) {
  std::string text = cores.size() == 1 ? "core " : "cores ";
  for (size_t i = 0; i < cores.size(); ++i) {
    const char* const between = i + 1 < cores.size() ? ", " : " and ";
    text += (i == 0 ? "" : between) + std::to_string(cores[i]);
  }
  return text;
}

std::string SilenceOf(const std::vector<int>& cores) {
  const bool one = cores.size() == 1;
  return NamesOfCores(cores) + (one ? " does" : " do") +
         " not answer; see in the daemon's log whether the co-processor answers, and that it has " +
         (one ? "that core" : "those cores");
}

int Snapshot::unread() const {
  return std::accumulate(unread_rows.begin(), unread_rows.end(), 0,
                         [](int sum, const UnreadRows& rows) { return sum + rows.count; });
}

bool CanBeTrusted(const Snapshot& snapshot) {
  return snapshot.unread_rows.empty() && snapshot.silent_cores.size() < std::size(kGraphCores);
}

std::string GapsOf(const Snapshot& snapshot) {
  std::string text;
  for (const UnreadRows& rows : snapshot.unread_rows) {
    text += (text.empty() ? "" : "; ") + std::to_string(rows.count) +
            (rows.count == 1 ? " row" : " rows") + " of 'kvoxctl " + rows.list +
            "' cannot be read; look there for the reason";
  }
  if (snapshot.silent_cores.empty()) return text;
  return SilenceOf(snapshot.silent_cores) + (text.empty() ? "" : "; ") + text;
}

Snapshot ReadSnapshot(Daemon& daemon) {
  Snapshot snapshot;
  const auto take = [&snapshot](auto told, std::string list) {
    if (told.unread != 0) snapshot.unread_rows.push_back({std::move(list), told.unread});
    return std::move(told.items);
  };
  snapshot.types = take(AskTypes(daemon), "processor types");
  snapshot.processors = take(AskProcessors(daemon), "processor list");
  for (Processor& processor : snapshot.processors) {
    processor.settings = AskSettings(daemon, processor.id);
  }
  for (const int core : kGraphCores) {
    auto told = AskTaps(daemon, core);
    if (!CoreAnswered(told.lines)) snapshot.silent_cores.push_back(core);
    const auto taps = take(std::move(told), "tap list " + std::to_string(core));
    snapshot.taps.insert(snapshot.taps.end(), taps.begin(), taps.end());
  }
  snapshot.tapouts = take(AskBuffers(daemon, Direction::kTapOut), "buffer list tap-out");
  snapshot.injects = take(AskBuffers(daemon, Direction::kInject), "buffer list inject");
  for (const std::string& name : take(AskUseCases(daemon), "usecase list")) {
    snapshot.use_cases.push_back({name, AskUseCase(daemon, name)});
  }
  return snapshot;
}

const Processor* FindProcessor(const std::vector<Processor>& processors, const std::string& id) {
  const auto found = std::find_if(processors.begin(), processors.end(),
                                  [&](const Processor& processor) { return processor.id == id; });
  return found == processors.end() ? nullptr : &*found;
}

const Buffer* FindBuffer(const std::vector<Buffer>& buffers, const std::string& name) {
  const auto found = std::find_if(buffers.begin(), buffers.end(),
                                  [&](const Buffer& buffer) { return buffer.name == name; });
  return found == buffers.end() ? nullptr : &*found;
}

}  // namespace kvox::client
