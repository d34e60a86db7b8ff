#include "sim/recording/recorded_replies.h"

#include <utility>

#include "sim/recording/comparison.h"

namespace kvox::sim {
namespace {

/// A reply carries the sequence number of its command.
void SetSequence(std::vector<Reply>& replies, std::span<const std::byte> command) {
  for (Reply& reply : replies) {
    const bool is_whole = reply.bytes.size() >= sizeof(CMD_HDR) &&
                          CommandHeader(reply.bytes).opcode == CommandHeader(command).opcode;
    if (is_whole) reply.bytes[offsetof(CMD_HDR, seq)] = command[offsetof(CMD_HDR, seq)];
  }
}

}  // namespace

RecordedReplies::RecordedReplies(const Script& script)
    : exchanges_(script.exchanges),
      states_(exchanges_.size(), State::kToCome),
      model_(ScenarioOf(script)),
      journal_(nullptr),
      handler_(model_, journal_) {
  for (size_t i = 0; i < exchanges_.size(); ++i) {
    if (exchanges_[i].is_before) states_[i] = State::kGivenUp;
  }
}

RecordedReplies::Match RecordedReplies::Take(std::span<const std::byte> command) {
  commands_.emplace_back(command.begin(), command.end());
  std::vector<std::byte> reply = commands_.back();
  handler_.Handle(reply);  // the model follows, whoever replies
  auto exchange = Find(command, State::kToCome);
  if (!exchange) exchange = Find(command, State::kGivenUp);
  if (!exchange) {
    ++modelled_;
    return {.replies = {{.bytes = std::move(reply)}}};
  }
  states_[*exchange] = State::kUsed;
  Match match{exchanges_[*exchange].replies, exchange};
  SetSequence(match.replies, command);
  return match;
}

void RecordedReplies::GiveUp(size_t exchange) {
  if (!IsUsed(exchange)) states_[exchange] = State::kGivenUp;
}

std::optional<size_t> RecordedReplies::Find(std::span<const std::byte> command, State state) const {
  for (size_t i = 0; i < exchanges_.size(); ++i) {
    if (states_[i] == state && SameCommand(exchanges_[i].command, command)) return i;
  }
  return std::nullopt;
}

}  // namespace kvox::sim
