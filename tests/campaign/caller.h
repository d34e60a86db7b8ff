// Calls of the daemon, watched: one that does not return is found out and named.
#pragma once

#include <aidl/kvox/IKvox.h>

#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "tests/campaign/phase.h"

namespace kvox::campaign {

using aidl::kvox::IKvox;

/// Calls under way. Any thread.
class CallWatch {
 public:
  class Scope {
   public:
    Scope(CallWatch& watch, const char* name) : watch_(watch), entry_(watch.Begin(name)) {}
    ~Scope() { watch_.End(entry_); }
    Scope(const Scope&) = delete;
    Scope& operator=(const Scope&) = delete;

   private:
    CallWatch& watch_;
    const std::list<std::pair<const char*, Clock::time_point>>::iterator entry_;
  };

  /// The name of a call that has been under way for longer than `limit`.
  std::optional<std::string> Overdue(Ms limit) const;
  /// The longest time that a call took: "StartIo 402 ms".
  std::string Slowest() const;

 private:
  using Entries = std::list<std::pair<const char*, Clock::time_point>>;
  Entries::iterator Begin(const char* name);
  void End(Entries::iterator entry);

  mutable std::mutex mutex_;
  Entries under_way_;
  Clock::duration slowest_time_{};
  const char* slowest_ = "none";
};

struct Answer {
  bool delivered = false;  // false: the daemon was not reached
  IKvox::CommandResult result;

  bool ok() const { return delivered && result.status == IKvox::CommandStatus::OK; }
  /// What a person would want to see of it: its last line or why there is none.
  std::string Text() const;
};

/// The daemon as clients see it. Any thread.
class Caller {
 public:
  Caller(std::shared_ptr<IKvox> kvox, CallWatch& watch) : kvox_(std::move(kvox)), watch_(watch) {}

  /// A method whose last argument is the result.
  template <typename Method, typename... Arguments>
  Answer Call(const char* name, Method method, const Arguments&... arguments) {
    Answer answer;
    const CallWatch::Scope scope(watch_, name);
    answer.delivered = std::invoke(method, *kvox_, arguments..., &answer.result).isOk();
    return answer;
  }

  bool Ping() {
    const CallWatch::Scope scope(watch_, "Ping");
    return kvox_->Ping().isOk();
  }

 private:
  const std::shared_ptr<IKvox> kvox_;
  CallWatch& watch_;
};

}  // namespace kvox::campaign
