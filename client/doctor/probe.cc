#include "client/doctor/gather.h"
#include "libkvox/calls/daemon.h"

namespace kvox::client {

DaemonReply ProbeDaemon(std::chrono::milliseconds wait) {
  DaemonReply reply{.status = kDone};
  try {
    Daemon daemon(wait);
    reply.round_trip_us = daemon.Ping();
    reply.version = daemon.Get<int32_t>("getInterfaceVersion", [](IKvox& kvox, int32_t& version) {
      return kvox.getInterfaceVersion(&version);
    });
  } catch (const Failure& failure) {
    reply.status = failure.status();
    reply.error = failure.what();
  }
  return reply;
}

}  // namespace kvox::client
