// The doctor's observations of the machine, as plain values.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "libkvox/errors.h"
#include "libkvox/flight/incidents.h"

namespace kvox::client {

/// A user, with the properties that determine permissions.
struct User {
  uint32_t uid = 0;
  std::string name;              // a number if there is no name
  std::vector<uint32_t> groups;  // their numbers
  std::string group;             // the name of the one to grant rights to
};

/// What is at a path.
struct PathFacts {
  std::string path;
  int error = 0;      // errno of stat(); 0: the rest is known
  bool link = false;  // it is a symbolic link; always known
  uint32_t mode = 0;  // type and permissions, as stat() has them
  uint32_t uid = 0;
  uint32_t gid = 0;
  std::string owner = {};  // names; numbers where there are none
  std::string group = {};
};

/// What a process may do.
struct ProcessFacts {
  int pid = 0;
  char state = '?';                           // 'T': stopped
  std::optional<uint64_t> rtprio_limit = {};  // none: not known
  bool sys_nice = false;                      // it has that capability
  std::vector<uint32_t> groups = {};
};

/// The daemon's reply to a ping.
struct DaemonReply {
  int status = kTimedOut;  // kDone, or why there is no reply
  double round_trip_us = 0;
  int32_t version = 0;  // of its interface
  std::string error = {};
};

/// Where the daemon's socket is, or would be.
struct SocketLocation {
  PathFacts directory;
  PathFacts socket;
};

struct Facts {
  User me;
  User daemon;                          // the user that kvoxd runs as, or would run as
  std::optional<ProcessFacts> running;  // kvoxd's process; none was found

  PathFacts devices;  // their directory
  PathFacts marker;
  PathFacts control;
  std::vector<PathFacts> tapouts;
  std::vector<PathFacts> injects;

  int priority = 0;                        // the real-time priority that kvoxd asks for
  ProcessFacts own;                        // this process, for a kvoxd that is started like it
  std::optional<int64_t> rt_runtime_us{};  // of each second, for real-time threads

  std::optional<SocketLocation> location;  // none where a service manager knows the daemon
  DaemonReply reply;
  double waited_s = 0;      // the longest wait for it
  int32_t own_version = 0;  // of the client's interface

  bool has_flight_log = false;
  uint64_t covered_ns = 0;          // what the flight log tells about: a minute at most
  std::vector<Incident> incidents;  // of that time

  std::vector<PathFacts> wake_locks;  // to take and to drop; none where the system has another way
  PathFacts captures;                 // their directory
  uint64_t free_bytes = 0;            // in it, for kvoxd
};

}  // namespace kvox::client
