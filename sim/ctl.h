// Commands to a running simulator, over a local stream socket next to the devices. A client sends
// one line of words and gets one reply.
#pragma once

#include <event2/listener.h>

#include <filesystem>
#include <functional>
#include <list>
#include <memory>
#include <string>
#include <vector>

#include "sim/devices/device_directory.h"
#include "sim/event.h"

namespace kvox::sim {

/// The socket's name in the directory of the devices.
inline constexpr char kCtlName[] = ".kvosim.ctl";

/// How a reply begins; its text follows in the next line, to the end of the stream.
inline constexpr char kCtlOk[] = "ok\n";
inline constexpr char kCtlRefused[] = "refused\n";

struct CtlReply {
  bool ok;
  std::string text;   // without a newline at its end
  bool exit = false;  // the event loop is to exit once the client has this
};

/// The simulator's end. Event loop's thread; no client can block it. The process must ignore
/// SIGPIPE.
class CtlServer {
 public:
  using Handler = std::function<CtlReply(const std::vector<std::string>& words)>;

  static constexpr size_t kMaxClients = 16;
  static constexpr size_t kMaxLine = 1024;

  /// `handler` is called with every line. A client has `timeout_ns` to send its line and to take
  /// its reply. Throws std::runtime_error when the socket cannot be created in `directory`, which
  /// removes it at its end.
  CtlServer(event_base* base, DeviceDirectory& directory, Handler handler,
            uint64_t timeout_ns = 2'000'000'000);
  ~CtlServer();
  CtlServer(const CtlServer&) = delete;
  CtlServer& operator=(const CtlServer&) = delete;

 private:
  class Client;
  struct FreeListener {
    void operator()(evconnlistener* listener) const { evconnlistener_free(listener); }
  };

  void Accept(int fd);
  void Remove(Client* client);

  event_base* const base_;
  const Handler handler_;
  const uint64_t timeout_ns_;
  std::unique_ptr<evconnlistener, FreeListener> listener_;
  Event resume_;
  std::list<Client> clients_;
};

/// `kvosim ctl`: sends a command to the simulator that runs in a directory and prints the reply.
/// Returns the exit status: 0 done, 1 refused (the reason is on standard error), 3 there is no
/// simulator or its reply cannot be used.
int RunCtl(const std::filesystem::path& directory, const std::vector<std::string>& words);

}  // namespace kvox::sim
