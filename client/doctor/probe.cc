#include "client/doctor/probe.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <optional>
#include <sstream>
#include <stdexcept>

#include "client/calls/daemon.h"
#include "client/system/files.h"
#include "client/system/signals.h"
#include "kvox/common/unique_fd.h"

namespace kvox::client {
namespace {

using Clock = std::chrono::steady_clock;

DaemonReply Ask() {
  DaemonReply answer{.status = kDone};
  try {
    Daemon daemon(kNoLimit);
    daemon.kvox();  // found before the clock runs
    const auto begin = Clock::now();
    daemon.Run("Ping", [](IKvox& kvox) { return kvox.Ping(); });
    answer.round_trip_us = std::chrono::duration<double, std::micro>(Clock::now() - begin).count();
    daemon.Run("getInterfaceVersion",
               [&](IKvox& kvox) { return kvox.getInterfaceVersion(&answer.version); });
  } catch (const Failure& failure) {
    answer.status = failure.status();
    answer.error = failure.what();
  } catch (const std::exception& error) {
    answer.status = kFailed;
    answer.error = error.what();
  }
  return answer;
}

/// In the child. `out` goes with the process.
[[noreturn]] void AskAndTell(int out, std::chrono::milliseconds wait) {
  // Should the parent be gone by then, nobody else ends this.
  const auto seconds = std::chrono::ceil<std::chrono::seconds>(wait).count() + 1;
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  signal(SIGALRM, SIG_DFL);
  UnblockAlarm();
  alarm(static_cast<unsigned>(seconds));
  const DaemonReply answer = Ask();
  std::ostringstream text;
  text << answer.status << ' ' << answer.round_trip_us << ' ' << answer.version << '\n'
       << answer.error;
  const std::string bytes = text.str();
  WriteAll(out, bytes.data(), bytes.size());
  _exit(0);
}

/// What comes through the pipe until its other end closes; none when that takes too long.
std::optional<std::string> ReadToEnd(int in, Clock::time_point deadline) {
  std::string text;
  for (;;) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
    pollfd ready{.fd = in, .events = POLLIN, .revents = 0};
    const int count = poll(&ready, 1, static_cast<int>(std::max<int64_t>(left, 0)));
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) return std::nullopt;
    char part[4096];
    const ssize_t size = read(in, part, sizeof part);
    if (size <= 0) return text;
    text.append(part, static_cast<size_t>(size));
  }
}

DaemonReply ReadReply(const std::string& text) {
  DaemonReply answer;
  std::istringstream stream(text);
  if (stream >> answer.status >> answer.round_trip_us >> answer.version) {
    stream.get();
    std::getline(stream, answer.error, '\0');
  } else {
    answer = {.status = kFailed, .error = "the process that was to ask it has died"};
  }
  return answer;
}

}  // namespace

DaemonReply AskDaemon(std::chrono::milliseconds wait) {
  const auto deadline = Clock::now() + wait;
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) {
    throw std::runtime_error(std::string("no pipe: ") + strerror(errno) +
                             "; raise the limit of open files");
  }
  const UniqueFd in(ends[0]);
  UniqueFd out(ends[1]);
  const pid_t child = fork();
  if (child == 0) AskAndTell(out.get(), wait);
  if (child < 0) {
    throw std::runtime_error(std::string("no process to ask the daemon with: ") + strerror(errno) +
                             "; raise the limit of processes");
  }
  out = UniqueFd();
  const auto text = ReadToEnd(in.get(), deadline);
  kill(child, SIGKILL);
  while (waitpid(child, nullptr, 0) < 0 && errno == EINTR) {
  }
  return text ? ReadReply(*text) : DaemonReply{.status = kTimedOut};
}

}  // namespace kvox::client
