// Serves pages: files over HTTP, and sessions over WebSocket. libwebsockets does the protocols.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "web/server/hub.h"

namespace kvox::web {

struct Listen {
  std::string address = "127.0.0.1";  // or the path of a Unix socket
  bool is_path = false;
  std::string owner = {};               // "user:group" of a Unix socket; "" for this user's
  int port = 8490;                      // 0: any
  std::vector<std::string> hosts = {};  // names besides this machine's own
  std::string files = {};               // directory of the page
};

/// One thread, except where a function says otherwise.
class Server {
 public:
  /// Throws std::runtime_error when it cannot listen.
  Server(Listen listen, Hub::Options options);
  ~Server();
  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;

  int port() const;

  /// Serves until Stop().
  void Run();

  /// Any thread, and signal handlers.
  void Stop();

 private:
  class Impl;
  const std::unique_ptr<Impl> impl_;
};

}  // namespace kvox::web
