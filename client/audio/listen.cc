#include "client/audio/listen.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <thread>

#include "client/audio/record.h"
#include "kvox/common/fixed_text.h"
#include "kvox/common/unique_fd.h"
#include "libkvox/graph/probe.h"
#include "libkvox/model/snapshot.h"

extern char** environ;

namespace kvox::client {
namespace {

/// Programs that play a WAV file from standard input through whatever sound system there is.
const char* const kPlayers[][5] = {{"aplay", "-q", "-", nullptr}, {"play", "-q", "-t", "wav", "-"}};

constexpr auto kLongestEnd = std::chrono::seconds(5);  // of a player without input

/// Starts a player. -1 when it is not installed.
pid_t Start(const char* const* words, size_t count, int input) {
  char* arguments[8] = {};
  for (size_t i = 0; i < count; ++i) arguments[i] = const_cast<char*>(words[i]);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, input, STDIN_FILENO);
  pid_t child = -1;
  const int error = posix_spawnp(&child, words[0], &actions, nullptr, arguments, environ);
  posix_spawn_file_actions_destroy(&actions);
  return error == 0 ? child : -1;
}

/// How the player ended, as waitpid() says it; it is ended when it takes too long.
int WaitForEnd(pid_t player) {
  const auto deadline = std::chrono::steady_clock::now() + kLongestEnd;
  int status = 0;
  while (waitpid(player, &status, WNOHANG) == 0) {
    if (std::chrono::steady_clock::now() > deadline) kill(player, SIGKILL);
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return status;
}

}  // namespace

int Listen(Daemon& daemon, const std::string& point, const Printer& out) {
  PlanAccess(point, Use::kReceive, "", ReadSnapshot(daemon));  // before a player is started
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) {
    throw Failure(kFailed, std::string("no pipe to a player: ") + ErrorText(errno).c_str());
  }
  UniqueFd read_end(ends[0]);
  UniqueFd write_end(ends[1]);
  pid_t player = -1;
  const char* name = nullptr;
  for (const auto& words : kPlayers) {
    name = words[0];
    player = Start(words, std::size(words), read_end.get());
    if (player >= 0) break;
  }
  if (player < 0) {
    throw Failure(kRefused,
                  "neither aplay nor sox is installed here to play sound with; 'apt "
                  "install alsa-utils', or 'kvoxctl record " +
                      point + " -' into another program");
  }
  read_end = UniqueFd();
  dup2(write_end.get(), STDOUT_FILENO);
  write_end = UniqueFd();
  const RecordOptions options{.files = {{.path = kPipe, .points = {point}}}};
  const int status = Record(daemon, options, out);
  close(STDOUT_FILENO);  // the end of the player's input
  const int ended = WaitForEnd(player);
  if (WIFEXITED(ended) && WEXITSTATUS(ended) != 0) {
    throw Failure(kRefused, std::string(name) + " could not play it; 'kvoxctl record " + point +
                                " -' writes it to another program");
  }
  return status;
}

}  // namespace kvox::client
