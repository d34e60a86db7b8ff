// A client's access to the daemon. The watchdog watches every call.
#pragma once

#include <aidl/kvox/IKvox.h>

#include <algorithm>
#include <functional>
#include <memory>
#include <string>
#include <utility>

#include "tests/campaign/call_watchdog.h"

namespace kvox::campaign {

using aidl::kvox::IKvox;

struct CommandReply {
  bool delivered = false;  // false: the daemon was not reached
  IKvox::CommandResult result = {};

  bool ok() const { return delivered && result.status == IKvox::CommandStatus::OK; }
  /// Status and lines, or the reason why there are none.
  std::string Text() const {
    if (!delivered) return "kvoxd was not reached";
    std::string text = "status " + std::to_string(static_cast<int>(result.status));
    for (const std::string& line : result.lines) text += " | " + line;
    std::replace(text.begin(), text.end(), '\n', ' ');
    return text;
  }
};

/// Any thread.
class DaemonClient {
 public:
  DaemonClient(std::shared_ptr<IKvox> kvox, CallWatchdog& watchdog)
      : kvox_(std::move(kvox)), watchdog_(watchdog) {}

  /// Calls a method whose last argument is the result.
  template <typename Method, typename... Arguments>
  CommandReply Call(const char* name, Method method, const Arguments&... arguments) {
    CommandReply reply;
    const CallWatchdog::Call call(watchdog_, name);
    reply.delivered = std::invoke(method, *kvox_, arguments..., &reply.result).isOk();
    return reply;
  }

  bool Ping() {
    const CallWatchdog::Call call(watchdog_, "Ping");
    return kvox_->Ping().isOk();
  }

 private:
  const std::shared_ptr<IKvox> kvox_;
  CallWatchdog& watchdog_;
};

}  // namespace kvox::campaign
