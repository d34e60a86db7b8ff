#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

#include "client/calls/daemon.h"
#include "client/doctor/gather.h"
#include "client/system/files.h"
#include "kvox/common/unique_fd.h"

namespace kvox::client {
namespace {

/// A DaemonReply as sent from child to parent; the error text follows.
struct WireReply {
  int status;
  double round_trip_us;
  int32_t version;
};

DaemonReply Probe() {
  DaemonReply reply{.status = kDone};
  try {
    Daemon daemon(kNoLimit);
    reply.round_trip_us = daemon.Ping();
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
  const CallDeadline deadline(nullptr, kTimedOut, wait);
  const DaemonReply reply = Probe();
  const WireReply wire{reply.status, reply.round_trip_us, reply.version};
  WriteAll(out, &wire, sizeof wire);
  WriteAll(out, reply.error.data(), reply.error.size());
  _exit(kDone);
}

/// Reads the pipe until its other end closes.
std::string ReadToEnd(int in) {
  std::string bytes;
  char part[4096];
  for (;;) {
    const ssize_t size = read(in, part, sizeof part);
    if (size < 0 && errno == EINTR) continue;
    if (size <= 0) return bytes;
    bytes.append(part, static_cast<size_t>(size));
  }
}

}  // namespace

DaemonReply ProbeDaemon(std::chrono::milliseconds wait) {
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
  const std::string bytes = ReadToEnd(in.get());
  int status = 0;
  while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
  }
  if (WIFEXITED(status) && WEXITSTATUS(status) == kTimedOut) return {.status = kTimedOut};
  WireReply wire;
  if (bytes.size() < sizeof wire) {
    return {.status = kFailed, .error = "the process that was to ask it has died"};
  }
  std::memcpy(&wire, bytes.data(), sizeof wire);
  return {wire.status, wire.round_trip_us, wire.version, bytes.substr(sizeof wire)};
}

}  // namespace kvox::client
