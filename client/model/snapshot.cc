#include "client/model/snapshot.h"

#include <algorithm>
#include <iterator>
#include <utility>

#include "kvox/common/four_cc.h"

namespace kvox::client {
namespace {

/// The method's lines. Throws Failure when its status is not OK.
template <typename Method, typename... T>
Lines Query(Daemon& daemon, const char* name, Method method, const T&... arguments) {
  IKvox::CommandResult result = daemon.Call(name, method, arguments...);
  if (result.status != IKvox::CommandStatus::OK) {
    const std::string last = result.lines.empty() ? name : SplitLines(result.lines).back();
    throw Failure(kRefused, std::string(name) + " failed: " +
                                (result.lines.size() < 2 ? "" : *(result.lines.end() - 2) + "; ") +
                                last + "; the daemon's log tells more");
  }
  return std::move(result.lines);
}

template <typename T, typename Matches>
const T* FindIf(const std::vector<T>& items, Matches matches) {
  const auto found = std::find_if(items.begin(), items.end(), matches);
  return found == items.end() ? nullptr : &*found;
}

}  // namespace

TableReply<Processor> QueryProcessors(Daemon& daemon) {
  return ParseProcessors(Query(daemon, "ListProcessors", &IKvox::ListProcessors));
}

TableReply<Buffer> QueryBuffers(Daemon& daemon, Direction direction) {
  return ParseBuffers(direction,
                      direction == Direction::kTapOut
                          ? Query(daemon, "ListTapOutBuffers", &IKvox::ListTapOutBuffers)
                          : Query(daemon, "ListInjectBuffers", &IKvox::ListInjectBuffers));
}

TableReply<Buffer> QueryBuffers(Daemon& daemon) {
  TableReply<Buffer> buffers = QueryBuffers(daemon, Direction::kTapOut);
  buffers.Append(QueryBuffers(daemon, Direction::kInject));
  return buffers;
}

TableReply<Path> QueryGraph(Daemon& daemon) {
  return ParseGraph(Query(daemon, "ShowGraph", &IKvox::ShowGraph));
}

TableReply<std::string> QueryTypes(Daemon& daemon) {
  return ParseNames(Query(daemon, "ListSupportedProcessors", &IKvox::ListSupportedProcessors));
}

TableReply<std::string> QueryUseCases(Daemon& daemon) {
  return ParseNames(Query(daemon, "ListSupportedUseCases", &IKvox::ListSupportedUseCases));
}

TableReply<std::string> QueryParameters(Daemon& daemon) {
  return ParseNames(Query(daemon, "ListParameters", &IKvox::ListParameters));
}

std::optional<Settings> QuerySettings(Daemon& daemon, const std::string& processor) {
  IKvox::CommandResult result;
  std::vector<IKvox::ParamValue> values;
  daemon.Run("GetParameterBulk", [&](IKvox& kvox) {
    return kvox.GetParameterBulk(CodeOf(processor), SettingsPairs(), &result, &values);
  });
  return ParseSettings(values);
}

std::optional<bool> QueryUseCase(Daemon& daemon, const std::string& name) {
  const IKvox::CommandResult result = daemon.Call("IsEnabled", &IKvox::IsEnabled, name);
  if (result.status != IKvox::CommandStatus::OK) return std::nullopt;
  return result.value != 0;
}

TableReply<TapPoint> QueryTaps(Daemon& daemon, const std::vector<int>& cores,
                               std::vector<int>& silent) {
  TableReply<TapPoint> taps;
  for (const int core : cores) {
    auto reply = ParseTaps(core, Query(daemon, "TapList", &IKvox::TapList, core));
    if (!CoreReplied(reply.lines)) silent.push_back(core);
    taps.Append(std::move(reply));
  }
  return taps;
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

int Snapshot::unparsed_rows() const {
  int sum = 0;
  for (const UnparsedRows& rows : unparsed) sum += rows.count;
  return sum;
}

bool CanBeTrusted(const Snapshot& snapshot) {
  return snapshot.unparsed.empty() && snapshot.silent_cores.size() < kAllCores.size();
}

std::string GapsOf(const Snapshot& snapshot) {
  std::string text;
  for (const UnparsedRows& rows : snapshot.unparsed) {
    text += (text.empty() ? "" : "; ") + std::to_string(rows.count) +
            (rows.count == 1 ? " row" : " rows") + " of 'kvoxctl " + rows.list +
            "' cannot be read; look there for the reason";
  }
  if (snapshot.silent_cores.empty()) return text;
  return SilenceOf(snapshot.silent_cores) + (text.empty() ? "" : "; ") + text;
}

Snapshot ReadSnapshot(Daemon& daemon) {
  Snapshot snapshot;
  const auto take = [&snapshot](auto reply, std::string list) {
    if (reply.unparsed != 0) snapshot.unparsed.push_back({std::move(list), reply.unparsed});
    return std::move(reply.rows);
  };
  snapshot.types = take(QueryTypes(daemon), "processor types");
  snapshot.processors = take(QueryProcessors(daemon), "processor list");
  for (Processor& processor : snapshot.processors) {
    processor.settings = QuerySettings(daemon, processor.id);
  }
  for (const int core : kAllCores) {
    std::ranges::move(
        take(QueryTaps(daemon, {core}, snapshot.silent_cores), "tap list " + std::to_string(core)),
        std::back_inserter(snapshot.taps));
  }
  snapshot.tapouts = take(QueryBuffers(daemon, Direction::kTapOut), "buffer list tap-out");
  snapshot.injects = take(QueryBuffers(daemon, Direction::kInject), "buffer list inject");
  for (const std::string& name : take(QueryUseCases(daemon), "usecase list")) {
    snapshot.use_cases.push_back({name, QueryUseCase(daemon, name)});
  }
  return snapshot;
}

const Processor* FindProcessor(const std::vector<Processor>& processors, const std::string& id) {
  return FindIf(processors, [&](const Processor& processor) { return processor.id == id; });
}

const Buffer* FindBuffer(const std::vector<Buffer>& buffers, const std::string& name) {
  return FindIf(buffers, [&](const Buffer& buffer) { return buffer.name == name; });
}

}  // namespace kvox::client
