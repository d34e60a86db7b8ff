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
#include <stdexcept>

#include "client/calls/daemon.h"
#include "client/doctor/gather.h"
#include "client/system/files.h"
#include "client/system/signals.h"
#include "kvox/common/unique_fd.h"

namespace kvox::client {
namespace {

using Clock = std::chrono::steady_clock;

/// A DaemonReply as it travels from child to parent; the error text follows.
struct WireReply {
  int status;
  double round_trip_us;
  int32_t version;
};

DaemonReply Probe() {
  DaemonReply reply{.status = kDone};
  try {
    Daemon daemon(kNoLimit);
    daemon.kvox();  // connects before the clock runs
    const auto begin = Clock::now();
    daemon.Run("Ping", [](IKvox& kvox) { return kvox.Ping(); });
    reply.round_trip_us = std::chrono::duration<double, std::micro>(Clock::now() - begin).count();
    daemon.Run("getInterfaceVersion",
               [&](IKvox& kvox) { return kvox.getInterfaceVersion(&reply.version); });
  } catch (const Failure& failure) {
    reply.status = failure.status();
    reply.error = failure.what();
  } catch (const std::exception& error) {
    reply.status = kFailed;
    reply.error = error.what();
  }
  return reply;
}

[[noreturn]] void RunChild(int out, std::chrono::milliseconds wait) {
  // In case the parent is gone by then.
  const auto seconds = std::chrono::ceil<std::chrono::seconds>(wait).count() + 1;
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  signal(SIGALRM, SIG_DFL);
  UnblockAlarm();
  alarm(static_cast<unsigned>(seconds));
  const DaemonReply reply = Probe();
  const WireReply wire{reply.status, reply.round_trip_us, reply.version};
  WriteAll(out, &wire, sizeof wire);
  WriteAll(out, reply.error.data(), reply.error.size());
  _exit(0);
}

/// What comes through the pipe until its other end closes; none when that takes too long.
std::optional<std::string> ReadToEnd(int in, Clock::time_point deadline) {
  std::string bytes;
  for (;;) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
    pollfd ready{.fd = in, .events = POLLIN, .revents = 0};
    const int count = poll(&ready, 1, static_cast<int>(std::max<int64_t>(left, 0)));
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) return std::nullopt;
    char part[4096];
    const ssize_t size = read(in, part, sizeof part);
    if (size <= 0) return bytes;
    bytes.append(part, static_cast<size_t>(size));
  }
}

DaemonReply ParseReply(const std::string& bytes) {
  WireReply wire;
  if (bytes.size() < sizeof wire) {
    return {.status = kFailed, .error = "the process that was to ask it has died"};
  }
  std::memcpy(&wire, bytes.data(), sizeof wire);
  return {wire.status, wire.round_trip_us, wire.version, bytes.substr(sizeof wire)};
}

}  // namespace

DaemonReply ProbeDaemon(std::chrono::milliseconds wait) {
  const auto deadline = Clock::now() + wait;
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) {
    throw std::runtime_error(std::string("no pipe: ") + strerror(errno) +
                             "; raise the limit of open files");
  }
  const UniqueFd in(ends[0]);
  UniqueFd out(ends[1]);
  const pid_t child = fork();
  if (child == 0) RunChild(out.get(), wait);
  if (child < 0) {
    throw std::runtime_error(std::string("no process to ask the daemon with: ") + strerror(errno) +
                             "; raise the limit of processes");
  }
  out = UniqueFd();
  const auto bytes = ReadToEnd(in.get(), deadline);
  kill(child, SIGKILL);
  while (waitpid(child, nullptr, 0) < 0 && errno == EINTR) {
  }
  return bytes ? ParseReply(*bytes) : DaemonReply{.status = kTimedOut};
}

}  // namespace kvox::client
