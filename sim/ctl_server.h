// The door for commands while the simulator runs: a local stream socket beside the devices. A
// client sends one line of words and gets one answer. The event loop's thread; no client ever
// keeps it waiting.
#pragma once

#include <event2/event.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "sim/devices/device_directory.h"
#include "sim/event.h"

namespace kvox::sim {

/// The socket's name in the directory of the devices.
inline constexpr char kCtlName[] = ".kvosim.ctl";

/// How an answer begins; its text follows in the next line, to the end of the stream.
inline constexpr char kCtlOk[] = "ok\n";
inline constexpr char kCtlRefused[] = "refused\n";

struct CtlAnswer {
  bool ok;
  std::string text;  // without a newline at its end
};

class CtlServer {
 public:
  using Answer = std::function<CtlAnswer(const std::vector<std::string>& words)>;

  static constexpr size_t kMaxClients = 16;
  static constexpr size_t kMaxLine = 1024;
  /// A client has this long to send its line and to take its answer.
  static constexpr uint64_t kPatienceNs = 2'000'000'000;

  /// `answer` is asked about every line. Null with the reason in `error` when the socket cannot be
  /// created in `directory`, which removes it at its end.
  static std::unique_ptr<CtlServer> Create(event_base* base, DeviceDirectory& directory,
                                           Answer answer, std::string& error);
  ~CtlServer();
  CtlServer(const CtlServer&) = delete;
  CtlServer& operator=(const CtlServer&) = delete;

 private:
  class Client;

  CtlServer(event_base* base, int listener, Answer answer);
  void Accept();
  void Reap();

  event_base* const base_;
  const int listener_;
  const Answer answer_;
  Event acceptable_;
  Event reap_;
  std::vector<std::unique_ptr<Client>> clients_;
};

}  // namespace kvox::sim
