#include "client/completion/names.h"

#include <algorithm>
#include <cctype>
#include <iterator>

#include "client/call_table.h"
#include "client/model/snapshot.h"

namespace kvox::client {
namespace {

using Names = std::vector<std::string>;

Names Processors(Daemon& daemon) {
  Names names;
  for (const Processor& processor : AskProcessors(daemon).items) names.push_back(processor.id);
  return names;
}

Names Taps(Daemon& daemon, const std::string& typed) {
  std::vector<TapPoint> taps;
  for (const int core : kGraphCores) {
    auto told = AskTaps(daemon, core);
    std::move(told.items.begin(), told.items.end(), std::back_inserter(taps));
  }
  const bool with_core = !typed.empty() && std::isdigit(static_cast<unsigned char>(typed[0])) != 0;
  Names names;
  for (const TapPoint& tap : taps) {
    const auto namesakes = std::count_if(taps.begin(), taps.end(), [&](const TapPoint& other) {
      return other.Name() == tap.Name();
    });
    names.push_back(with_core || namesakes > 1 ? tap.FullName() : tap.Name());
  }
  return names;
}

Names Buffers(Daemon& daemon, std::initializer_list<Direction> directions) {
  Names names;
  for (const Direction direction : directions) {
    for (const Buffer& buffer : AskBuffers(daemon, direction).items) names.push_back(buffer.name);
  }
  return names;
}

Names Cores() {
  Names names;
  for (const int core : kGraphCores) names.push_back(std::to_string(core));
  return names;
}

Names Methods() {
  Names names;
  for (const std::string& method : DescribeMethods()) {
    names.push_back(method.substr(0, method.find(' ')));
  }
  return names;
}

}  // namespace

std::vector<std::string> AllNames(Kind kind, const std::string& typed, Daemon& daemon) {
  switch (kind) {
    case Kind::kProcessor:
      return Processors(daemon);
    case Kind::kProcessorType:
      return AskTypes(daemon).items;
    case Kind::kTap:
      return Taps(daemon, typed);
    case Kind::kCore:
      return Cores();
    case Kind::kTapOut:
      return Buffers(daemon, {Direction::kTapOut});
    case Kind::kInject:
      return Buffers(daemon, {Direction::kInject});
    case Kind::kBuffer:
      return Buffers(daemon, {Direction::kTapOut, Direction::kInject});
    case Kind::kUseCase:
      return AskUseCases(daemon).items;
    case Kind::kParameter:
      return AskParameters(daemon).items;
    case Kind::kMethod:
      return Methods();
    case Kind::kText:
    case Kind::kNumber:
    case Kind::kChoice:
    case Kind::kFile:
      break;
  }
  return {};
}

bool IgnoresCase(Kind kind) {
  return kind == Kind::kUseCase || kind == Kind::kParameter;
}

}  // namespace kvox::client
