// Permissions of paths, and commands that change them.
#pragma once

#include <cstdint>
#include <string>

#include "client/doctor/facts.h"

namespace kvox::client {

// As in a mode, for one of owner, group and others.
constexpr uint32_t kRead = 4;
constexpr uint32_t kWrite = 2;
constexpr uint32_t kSearch = 1;

/// Whether the user has all of these rights, judging only by mode, owner and group.
bool May(const User& user, const PathFacts& path, uint32_t rights);

/// "read and write"; "search" of a directory.
std::string NameOf(uint32_t rights);

/// The text as one word of a shell's command line.
std::string ShellWord(const std::string& text);

/// "sudo " unless `me` is root already, or the owner of what is to be changed.
std::string Sudo(const User& me, uint32_t owner = 0);

/// A command for `me` that gives `user` the rights to `path`, which is `words` in the shell.
/// Devices change their owner: the members of its group talk to the daemon, not to devices.
std::string Grant(const User& me, const User& user, const PathFacts& path, uint32_t rights,
                  const std::string& words);

/// A command that adds `me` to the group that has the rights, or that gives `me` the rights if the
/// group has none.
std::string Join(const User& me, const PathFacts& path, uint32_t rights);

}  // namespace kvox::client
