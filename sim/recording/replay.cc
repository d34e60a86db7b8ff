#include "sim/recording/replay.h"

#include <fmt/format.h>
#include <signal.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "sim/event.h"
#include "sim/output.h"
#include "sim/recording/comparison.h"
#include "sim/recording/player.h"
#include "sim/recording/script.h"

namespace kvox::sim {
namespace {

std::vector<std::byte> ReadBytes(const std::filesystem::path& path) {
  std::error_code error;
  const auto size = file_size(path, error);
  std::ifstream file(path, std::ios::binary);
  if (error || !file) {
    throw std::runtime_error(fmt::format("cannot be read ({}); expected a recording",
                                         error ? error.message() : std::strerror(errno)));
  }
  std::vector<std::byte> bytes(size);
  file.read(reinterpret_cast<char*>(bytes.data()), static_cast<std::streamsize>(size));
  bytes.resize(static_cast<size_t>(file.gcount()));
  return bytes;
}

Script ReadFile(const ReplayOptions& options) {
  try {
    const std::vector<std::byte> bytes = ReadBytes(options.file);
    Script script = ReadScript(bytes, static_cast<uint64_t>(options.from_s * 1e9));
    if (script.steps.empty()) throw std::runtime_error("there is nothing to replay");
    return script;
  } catch (const std::runtime_error& error) {
    throw std::runtime_error(options.file.string() + ": " + error.what());
  }
}

/// Prints what was different; returns the exit status.
int Report(const Script& script, Player& player, bool check) {
  Player::Counts counts;
  const Sent sent = player.Finish(counts);
  for (const std::string& problem : script.problems) Print(stdout, "{}\n", problem);
  const auto print = [](size_t count, const char* text) {
    if (count > 0) Print(stdout, "{} {}\n", count, text);
  };
  print(counts.missed, "commands of the recording were not sent");
  print(counts.modelled, "commands are not in the recording: a model has replied");
  print(counts.unheard, "deliveries of audio had no reader, or no room");
  print(counts.late, "steps came late: this machine is busy");
  if (!check) return 0;
  const std::vector<std::string> lines = Compare(script, sent);
  for (const std::string& line : lines) Print(stdout, "{}\n", line);
  if (lines.empty()) {
    size_t bytes = 0;
    for (const auto& [node, pieces] : sent.injected) {
      for (const Piece& piece : pieces) bytes += piece.length;
    }
    Print(stdout, "the same {} commands and {} bytes of audio\n", sent.commands.size(), bytes);
  }
  return lines.empty() ? 0 : 1;
}

}  // namespace

int Replay(const std::filesystem::path& directory, const ReplayOptions& options) {
  signal(SIGPIPE, SIG_IGN);
  const Script script = ReadFile(options);
  const EventBase base = NewEventBase();
  bool ending = false;
  std::vector<std::unique_ptr<Event>> signals;
  for (const int number : {SIGINT, SIGTERM, SIGHUP}) {
    signals.push_back(std::make_unique<Event>(base.get(), number, EV_SIGNAL | EV_PERSIST, [&] {
      ending = true;
      event_base_loopbreak(base.get());
    }));
    signals.back()->Add();
  }
  int status = 0;
  do {
    Player player(base.get(), directory, script, options.speed,
                  [&] { event_base_loopbreak(base.get()); });
    event_base_dispatch(base.get());
    status = std::max(status, Report(script, player, options.check));
  } while (options.loop && !ending);
  return status;
}

}  // namespace kvox::sim
