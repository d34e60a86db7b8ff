#include "client/doctor/findings.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstring>

#include "client/doctor/rights.h"
#include "kvox/common/fixed_text.h"

namespace kvox::client {
namespace {

constexpr struct {
  const char* name;
  const char* color;
} kVerdicts[] = {{"ok", "\x1b[32m"}, {"warning", "\x1b[33m"}, {"failed", "\x1b[31m"}};

constexpr struct {
  uint32_t type;
  const char* name;
} kTypes[] = {{S_IFREG, "a regular file"}, {S_IFDIR, "a directory"}, {S_IFCHR, "a device"},
              {S_IFBLK, "a block device"}, {S_IFIFO, "a FIFO"},      {S_IFSOCK, "a socket"}};

std::string Column(const char* verdict) {
  return FormatText<16>("%-9s", verdict);
}

}  // namespace

const char* NameOf(Verdict verdict) {
  return kVerdicts[static_cast<size_t>(verdict)].name;
}

std::string LineOf(const Finding& finding) {
  const std::string line = Column(NameOf(finding.verdict)) + finding.object + ": " + finding.cause;
  return finding.fix.empty() ? line : line + "  fix: " + finding.fix;
}

std::string Painted(const std::string& line) {
  for (const auto& row : kVerdicts) {
    const std::string column = Column(row.name);
    if (line.starts_with(column)) {
      return row.color + column + "\x1b[0m" + line.substr(column.size());
    }
  }
  return line;
}

std::string WhatIsThere(const PathFacts& path) {
  if (path.error == ENOENT) return path.link ? "is a symbolic link to nothing" : "is not there";
  if (path.error != 0) return std::string("cannot be inspected: ") + strerror(path.error);
  for (const auto& row : kTypes) {
    if ((path.mode & S_IFMT) == row.type) return std::string("is ") + row.name;
  }
  return "is of an unknown kind";
}

std::string UserOf(const User& user) {
  return "user " + user.name;
}

std::vector<Finding> Diagnose(const Facts& facts) {
  std::vector<Finding> findings;
  for (const auto check : {CheckDevices, CheckScheduling, CheckRuntimeDirectory, CheckDaemon,
                           CheckAudio, CheckWakeLocks, CheckCaptures}) {
    check(facts, findings);
  }
  return findings;
}

}  // namespace kvox::client
