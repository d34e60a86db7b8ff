#include "libkvox/graph/route.h"

#include <algorithm>
#include <functional>
#include <iterator>

#include "kvox/common/fixed_text.h"
#include "kvox/common/near_matches.h"
#include "kvox/common/use_case_needs.h"
#include "libkvox/model/lookup.h"

namespace kvox::client {
namespace {

const std::vector<Buffer>& BuffersOf(Direction direction, const Snapshot& snapshot) {
  return direction == Direction::kTapOut ? snapshot.tapouts : snapshot.injects;
}

bool IsBuffer(const std::string& word, Direction direction, const Snapshot& snapshot) {
  return FindBuffer(BuffersOf(direction, snapshot), word) != nullptr;
}

/// The end of a processor or tap point that is bound to buffers of this direction.
template <typename T>
auto EndOf(Direction direction, std::string T::*tapout, std::string T::*inject) {
  return direction == Direction::kTapOut ? tapout : inject;
}

/// The buffer that a word names: itself, or the one that its tap point is bound to, which is bound
/// to a free one and enabled for that.
std::string BufferAt(const std::string& word, Direction direction, const Snapshot& snapshot,
                     State& state) {
  if (IsBuffer(word, direction, snapshot)) return word;
  const bool other =
      IsBuffer(word, Direction::kTapOut, snapshot) || IsBuffer(word, Direction::kInject, snapshot);
  if (other) {
    throw UsageError(word + " is no " + NameOf(direction) + " buffer; " +
                     (direction == Direction::kTapOut ? "audio comes from tap-out buffers"
                                                      : "audio goes into inject buffers"));
  }
  TapState& tap = state.taps[SelectTap(snapshot.taps, word).FullName()];
  std::string& buffer = tap.*EndOf(direction, &TapState::tapout, &TapState::inject);
  if (buffer.empty()) buffer = FreeBuffer(direction, snapshot, state);
  tap.enabled = true;
  return buffer;
}

void CheckType(const std::string& type, const Snapshot& snapshot) {
  if (std::ranges::count(snapshot.types, type) > 0) return;
  throw Failure(kNoObject, NotFound("processor type", type, snapshot.types,
                                    "'kvoxctl processor types' shows all; name one with --type"));
}

/// The processor of the route, made where there is none, connected to nothing but what it should be
/// connected to. Throws Failure.
ProcessorState ProcessorOf(const Route& route, const State& state, const Snapshot& snapshot,
                           const std::string& input, const std::string& output) {
  const std::string& id = route.processor;
  const auto found = state.processors.find(id);
  if (found == state.processors.end()) {
    if (id.size() != 4 || !CanBeProcessor(id)) {
      throw UsageError("PROCESSOR: a new one is named with four printable characters, not '" +
                       ValidUtf8(id) + "'");
    }
    ProcessorState made{.type = route.type.empty() ? id : route.type};
    CheckType(made.type, snapshot);
    return made;
  }
  const ProcessorState& now = found->second;
  if (!route.type.empty() && route.type != now.type) {
    throw Failure(kRefused, "processor " + id + " is of type " + now.type + ", not " + route.type +
                                "; give the new one another name");
  }
  const auto differs = [](const std::string& has, const std::string& wanted) {
    return !has.empty() && has != wanted;
  };
  if (differs(now.input, input) || differs(now.output, output)) {
    throw Failure(kRefused, "processor " + id + " is connected to " +
                                (now.input.empty() ? "none" : now.input) + " and " +
                                (now.output.empty() ? "none" : now.output) + "; 'kvoxctl unroute " +
                                id + "' frees it");
  }
  return now;
}

}  // namespace

std::string UsersOf(const std::string& buffer, const State& state) {
  std::string users;
  const auto add = [&](const std::string& who, const char* does) {
    users += (users.empty() ? "" : ", ") + who + does;
  };
  for (const auto& [id, processor] : state.processors) {
    if (processor.input == buffer) add(id, " reads it");
    if (processor.output == buffer) add(id, " writes it");
  }
  for (const auto& [name, tap] : state.taps) {
    if (tap.tapout == buffer) add(name, " streams into it");
    if (tap.inject == buffer) add(name, " plays it");
  }
  return users;
}

bool HasProcessor(const std::string& buffer, const State& state) {
  return std::ranges::any_of(state.processors, [&](const auto& entry) {
    return entry.second.input == buffer || entry.second.output == buffer;
  });
}

std::string FreeBuffer(Direction direction, const Snapshot& snapshot, const State& state) {
  std::vector<Buffer> buffers = BuffersOf(direction, snapshot);
  const auto is_common = [](const Buffer& buffer) {
    return std::ranges::count(kUseCaseNeeds, buffer.id, &UseCaseNeed::buffer) == 0;
  };
  std::ranges::stable_partition(buffers, is_common);
  std::string users;
  for (const Buffer& buffer : buffers) {
    const std::string used = UsersOf(buffer.name, state);
    if (used.empty() && !state.running.contains(buffer.name)) return buffer.name;
    users += "; " + buffer.name + ": " + (used.empty() ? "it is running" : used);
  }
  throw Failure(kRefused,
                std::string("no ") + NameOf(direction) + " buffer is free" + users +
                    (buffers.empty() ? "; see 'kvoxctl doctor'" : "; 'kvoxctl unroute' frees one"));
}

Failure HasWriter(const std::string& output, const std::string& id) {
  return {kRefused, output + " is written by " + id + ", and has one writer; 'kvoxctl unroute " +
                        id + "' frees it"};
}

State WithRoute(const Route& route, const Snapshot& snapshot) {
  State state = StateOf(snapshot);
  const std::string input = BufferAt(route.source, Direction::kTapOut, snapshot, state);
  const std::string output =
      route.sink.empty() ? "" : BufferAt(route.sink, Direction::kInject, snapshot, state);
  ProcessorState processor = ProcessorOf(route, state, snapshot, input, output);
  for (const auto& [id, other] : state.processors) {
    if (output.empty() || id == route.processor || other.output != output) continue;
    throw HasWriter(output, id);
  }
  processor.input = input;
  processor.output = output;
  processor.enabled = true;
  state.processors[route.processor] = processor;
  state.running.insert(input);
  state.running.merge(FedInjects(state));
  return state;
}

State WithoutProcessors(const std::vector<std::string>& processors, const Snapshot& snapshot) {
  State state = StateOf(snapshot);
  std::set<std::string> buffers;
  for (const std::string& id : processors) {
    const auto found = state.processors.find(id);
    if (found == state.processors.end()) {
      std::vector<std::string> names;
      for (const auto& [name, other] : state.processors) names.push_back(name);
      throw Failure(kNoObject,
                    NotFound("processor", id, names, "'kvoxctl processor list' shows all"));
    }
    buffers.insert({found->second.input, found->second.output});
    state.processors.erase(found);
  }
  std::erase_if(buffers, [&](const std::string& name) { return HasProcessor(name, state); });
  for (auto& [name, tap] : state.taps) {
    bool freed = false;
    for (std::string* const end : {&tap.tapout, &tap.inject}) {
      if (end->empty() || !buffers.contains(*end)) continue;
      end->clear();
      freed = true;
    }
    if (freed && tap.tapout.empty() && tap.inject.empty()) tap.enabled = false;
  }
  for (const std::string& name : buffers) state.running.erase(name);
  return state;
}

}  // namespace kvox::client
