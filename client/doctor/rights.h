// Who may do what with a path, and commands that change it. Pure.
#pragma once

#include <cstdint>
#include <string>

#include "client/doctor/facts.h"

namespace kvox::client {

// As in a mode, for one of owner, group and others.
constexpr uint32_t kRead = 4;
constexpr uint32_t kWrite = 2;
constexpr uint32_t kSearch = 1;

/// Whether the person has all of these rights to what is there, by mode, owner and group alone.
bool May(const Person& person, const PathFacts& path, uint32_t rights);

/// "read and write"; "search" of a directory.
std::string NameOf(uint32_t rights);

/// The text as one word of a shell's command line.
std::string ShellWord(const std::string& text);

/// "sudo " unless `me` is root already.
std::string Sudo(const Person& me);

/// A command for `me` that gives the rights to `path`, which `words` name in the shell, to
/// `person`. A device becomes his: the members of his group talk to the daemon, not to devices.
std::string Grant(const Person& me, const Person& person, const PathFacts& path, uint32_t rights,
                  const std::string& words);

/// A command that makes `me` one of those to whom the group's part of the mode gives the rights, or
/// one that gives the rights where it does not.
std::string Join(const Person& me, const PathFacts& path, uint32_t rights);

}  // namespace kvox::client
