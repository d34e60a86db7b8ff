#include "libkvox/model/snapshot.h"

#include <algorithm>
#include <iterator>
#include <utility>

#include "kvox/common/four_cc.h"
#include "kvox/common/use_case_needs.h"

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

/// What no list shows; none where the daemon is too old to report it.
std::optional<Lines> QueryHealth(Daemon& daemon) {
  auto result = daemon.Call("Debug", &IKvox::Debug, Lines{kHealthWord});
  if (result.status != IKvox::CommandStatus::OK) return std::nullopt;
  return std::move(result.lines);
}

/// The first tap point that is bound to the buffer, as the graph names it.
std::string TapAt(const std::string& buffer, std::string TapPoint::*end,
                  const std::vector<TapPoint>& taps) {
  if (buffer.empty()) return kNotConnected;
  for (const TapPoint& tap : taps) {
    if (tap.*end == buffer) return tap.Name() + (tap.enabled ? "" : kGraphDisabled);
  }
  return kNotConnected;
}

/// As the daemon draws it.
Lines GraphLines(const std::vector<Processor>& processors, const std::vector<TapPoint>& taps) {
  const auto name = [](const std::string& buffer) {
    return buffer.empty() ? kNotConnected : buffer;
  };
  std::string text;
  for (const Processor& processor : processors) {
    text += (text.empty() ? "  " : "\n  ") + TapAt(processor.input, &TapPoint::tapout, taps) +
            kGraphArrow + name(processor.input) + kGraphArrow + processor.id +
            (processor.enabled ? "" : kGraphDisabled) + kGraphArrow + name(processor.output) +
            kGraphArrow + TapAt(processor.output, &TapPoint::inject, taps);
  }
  return {kGraphTitle, text.empty() ? kGraphEmpty : text};
}

/// The graph of a co-processor that lacks cores, which are added to `absent`. None if it lacks
/// none, or cannot be queried.
std::optional<TableReply<Path>> QueryGraphWithoutCores(Daemon& daemon, std::vector<int>& absent) {
  try {
    const auto health = QueryHealth(daemon);
    const auto is_absence = [](const std::string& line) { return line.starts_with(kHealthNoCore); };
    if (!health || std::ranges::none_of(*health, is_absence)) return std::nullopt;
    MissingCores missing;
    const std::vector<TapPoint> taps = QueryTaps(daemon, kAllCores, missing).rows;
    if (missing.absent.empty() || !missing.silent.empty()) return std::nullopt;
    absent = std::move(missing.absent);
    return ParseGraph(GraphLines(QueryProcessors(daemon).rows, taps));
  } catch (const Failure&) {
    return std::nullopt;
  }
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

TableReply<Path> QueryGraph(Daemon& daemon, std::vector<int>& absent) {
  try {
    return ParseGraph(Query(daemon, "ShowGraph", &IKvox::ShowGraph));
  } catch (const Failure& failure) {
    if (failure.status() == kRefused) {
      if (auto graph = QueryGraphWithoutCores(daemon, absent)) return *std::move(graph);
    }
    throw;
  }
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
  using Values = std::vector<IKvox::ParamValue>;
  return ParseSettings(
      daemon.Get<Values>("GetParameterBulk", [id = CodeOf(processor)](IKvox& kvox, Values& values) {
        IKvox::CommandResult ignored;
        return kvox.GetParameterBulk(id, SettingsPairs(), &ignored, &values);
      }));
}

std::pair<IKvox::CommandResult, IKvox::ProcessorStats> QueryStats(Daemon& daemon, int32_t id) {
  using Reply = std::pair<IKvox::CommandResult, IKvox::ProcessorStats>;
  return daemon.Get<Reply>("ProcessorGetStats", [id](IKvox& kvox, Reply& reply) {
    return kvox.ProcessorGetStats(id, &reply.second, &reply.first);
  });
}

std::optional<bool> QueryUseCase(Daemon& daemon, const std::string& name,
                                 const std::vector<Processor>& processors) {
  const auto* const row = std::ranges::find(kUseCaseReports, name, &UseCaseReport::use_case);
  if (row == std::end(kUseCaseReports)) return std::nullopt;
  const std::string processor(row->processor);
  if (!processor.empty() && FindProcessor(processors, processor) == nullptr) return std::nullopt;
  const IKvox::CommandResult result = daemon.Call("IsEnabled", &IKvox::IsEnabled, name);
  if (result.status != IKvox::CommandStatus::OK) return std::nullopt;
  return result.value != 0;
}

TableReply<TapPoint> ListTaps(Daemon& daemon, const std::vector<int>& cores,
                              MissingCores& missing) {
  TableReply<TapPoint> taps;
  for (const int core : cores) {
    auto reply = ParseTaps(core, Query(daemon, "TapList", &IKvox::TapList, core));
    if (!CoreReplied(reply.lines)) missing.silent.push_back(core);
    taps.Append(std::move(reply));
  }
  return taps;
}

TableReply<TapPoint> QueryTaps(Daemon& daemon, const std::vector<int>& cores,
                               MissingCores& missing) {
  auto taps = ListTaps(daemon, cores, missing);
  std::vector<Buffer> none;
  AddHealth(daemon, none, missing);
  return taps;
}

bool AddHealth(Daemon& daemon, std::vector<Buffer>& buffers, MissingCores& missing) {
  const auto may_give_up = [](const Buffer& buffer) {
    return buffer.enabled && buffer.direction == Direction::kTapOut;
  };
  if (missing.silent.empty() && std::ranges::none_of(buffers, may_give_up)) return true;
  const auto health = QueryHealth(daemon);
  if (!health) return false;
  const auto reports = [&](const std::string& line) {
    return std::ranges::count(*health, line) > 0;
  };
  for (Buffer& buffer : buffers) {
    buffer.gave_up = may_give_up(buffer) && reports(kHealthGaveUp + buffer.name);
  }
  for (const int core : std::exchange(missing.silent, {})) {
    (reports(kHealthNoCore + std::to_string(core)) ? missing.absent : missing.silent)
        .push_back(core);
  }
  return true;
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

std::string AbsenceOf(const std::vector<int>& cores) {
  return "the co-processor has no " + NamesOfCores(cores);
}

int Snapshot::unparsed_rows() const {
  int sum = 0;
  for (const UnparsedRows& rows : unparsed) sum += rows.count;
  return sum;
}

bool CanBeTrusted(const Snapshot& snapshot) {
  return snapshot.unparsed.empty() && snapshot.missing_cores.silent.size() < kAllCores.size();
}

std::string GapsOf(const Snapshot& snapshot) {
  std::string text;
  for (const UnparsedRows& rows : snapshot.unparsed) {
    text += (text.empty() ? "" : "; ") + std::to_string(rows.count) +
            (rows.count == 1 ? " row" : " rows") + " of 'kvoxctl " + rows.list +
            "' cannot be read; look there for the reason";
  }
  if (snapshot.missing_cores.silent.empty()) return text;
  return SilenceOf(snapshot.missing_cores.silent) + (text.empty() ? "" : "; ") + text;
}

Snapshot ReadSnapshot(Daemon& daemon) {
  Snapshot snapshot;
  const auto take = [&snapshot](auto reply, std::string list) {
    if (reply.unparsed != 0) snapshot.unparsed.push_back({std::move(list), reply.unparsed});
    return std::move(reply.rows);
  };
  snapshot.types = take(QueryTypes(daemon), "processor types");
  snapshot.parameters = take(QueryParameters(daemon), "param list");
  snapshot.processors = take(QueryProcessors(daemon), "processor list");
  for (Processor& processor : snapshot.processors) {
    processor.settings = QuerySettings(daemon, processor.id);
  }
  for (const int core : kAllCores) {
    std::ranges::move(
        take(ListTaps(daemon, {core}, snapshot.missing_cores), "tap list " + std::to_string(core)),
        std::back_inserter(snapshot.taps));
  }
  snapshot.tapouts = take(QueryBuffers(daemon, Direction::kTapOut), "buffer list tap-out");
  snapshot.injects = take(QueryBuffers(daemon, Direction::kInject), "buffer list inject");
  std::vector<Buffer> none;
  AddHealth(daemon, none, snapshot.missing_cores);
  for (const std::string& name : take(QueryUseCases(daemon), "usecase list")) {
    snapshot.use_cases.push_back({name, QueryUseCase(daemon, name, snapshot.processors)});
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
