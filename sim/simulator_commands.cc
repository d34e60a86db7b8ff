// What `kvosim ctl` can ask of a simulator that runs.
#include <fmt/format.h>

#include <algorithm>
#include <iterator>

#include "kvox/common/kvox_utils.h"
#include "sim/simulator.h"

namespace kvox::sim {

const Simulator::CommandRow Simulator::kCommands[] = {
    {"status", &Simulator::TellStatus}, {"fault", &Simulator::AddFault},
    {"clear", &Simulator::ClearFaults}, {"restore", &Simulator::RestoreNodes},
    {"end", &Simulator::End},
};

CtlAnswer Simulator::Command(const Words& words) {
  const std::string name = words.empty() ? "" : words.front();
  const auto* row = std::ranges::find(kCommands, name, &CommandRow::name);
  if (row == std::end(kCommands)) {
    return {false, fmt::format("command: found \"{}\"; expected one of status, fault, clear, "
                               "restore, end",
                               name)};
  }
  const Words rest(words.begin() + 1, words.end());
  if (rest.empty() || row->handle == &Simulator::AddFault) return (this->*row->handle)(rest);
  return {false, fmt::format("{}: found {}; expected no more words", name, rest.front())};
}

CtlAnswer Simulator::TellStatus(const Words&) {
  std::string json = StatsJson(Count());
  json.pop_back();  // the newline, which every answer gets
  return {true, json};
}

CtlAnswer Simulator::AddFault(const Words& words) {
  FaultSpec spec;
  std::string error;
  if (!ParseFault(words, targets_, spec, error)) return {false, "fault: " + error};
  if (!plan_.Add(spec, GetTimestampNs())) {
    return {false, fmt::format("fault: {} wait or are at work already; expected that some end, or "
                               "the command clear",
                               kMaxFaults)};
  }
  faults_->Wake();
  return {true, fmt::format("fault {} is set", words.front())};
}

CtlAnswer Simulator::ClearFaults(const Words&) {
  faults_->Clear();
  return {true, "all faults are cleared"};
}

CtlAnswer Simulator::RestoreNodes(const Words&) {
  faults_->Restore();
  return {true, "all nodes are there"};
}

CtlAnswer Simulator::End(const Words&) {
  event_base_loopexit(base_.get(), nullptr);
  return {true, "the simulator ends"};
}

}  // namespace kvox::sim
