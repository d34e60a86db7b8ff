// Who replies to a daemon's commands in a replay: the recording, or else a model. Pure.
#pragma once

#include <cstddef>
#include <optional>
#include <span>
#include <vector>

#include "sim/coprocessor/command_handler.h"
#include "sim/recording/script.h"

namespace kvox::sim {

class RecordedReplies {
 public:
  /// `script` outlives it.
  explicit RecordedReplies(const Script& script);

  struct Match {
    std::vector<Reply> replies;
    std::optional<size_t> exchange = {};  // of the recording; none: the model has replied
  };

  /// The replies to a command: those of the first exchange with the same command that has not been
  /// used, rather one that is yet to come than one that was given up.
  Match Take(std::span<const std::byte> command);

  /// The command of that exchange is not waited for any more.
  void GiveUp(size_t exchange);

  bool IsUsed(size_t exchange) const { return states_[exchange] == State::kUsed; }
  const std::vector<std::vector<std::byte>>& commands() const { return commands_; }
  /// Commands that the recording does not have.
  size_t modelled() const { return modelled_; }

 private:
  enum class State { kToCome, kGivenUp, kUsed };

  std::optional<size_t> Find(std::span<const std::byte> command, State state) const;

  const std::vector<Exchange>& exchanges_;
  std::vector<State> states_;
  CoProcessor model_;
  Journal journal_;
  CommandHandler handler_;
  std::vector<std::vector<std::byte>> commands_;
  size_t modelled_ = 0;
};

}  // namespace kvox::sim
