// Connects a client to a service and exchanges greetings.
#pragma once

#include <android/binder_auto_utils.h>

#include <memory>
#include <string>

namespace kvox::binder {

class Connection;

/// Without a connection, `error` names the path, the cause and the next step.
struct ServiceLink {
  std::shared_ptr<Connection> connection;
  ndk::SpAIBinder root;
  bool absent = false;  // there is no socket, the service may be elsewhere
  bool denied = false;  // this user may not connect
  std::string error;
};

/// Takes at most the handshake time, and no noticeable time when the service runs or is absent.
ServiceLink ConnectToService(const std::string& path);

}  // namespace kvox::binder
