#include "client/doctor/rights.h"

#include <sys/stat.h>

#include <algorithm>
#include <string_view>

namespace kvox::client {
namespace {

constexpr struct {
  uint32_t right;
  char letter;
  const char* name;
} kRights[] = {{kRead, 'r', "read"}, {kWrite, 'w', "write"}, {kSearch, 'x', "search"}};

std::string Letters(uint32_t rights) {
  std::string letters;
  for (const auto& row : kRights) {
    if ((rights & row.right) != 0) letters += row.letter;
  }
  return letters;
}

bool IsIn(const User& user, uint32_t group) {
  return std::find(user.groups.begin(), user.groups.end(), group) != user.groups.end();
}

bool GroupHas(const PathFacts& path, uint32_t rights) {
  return (path.mode >> 3 & rights) == rights;
}

}  // namespace

bool May(const User& user, const PathFacts& path, uint32_t rights) {
  if (user.uid == 0) return true;
  if (user.uid == path.uid) return (path.mode >> 6 & rights) == rights;
  if (IsIn(user, path.gid)) return GroupHas(path, rights);
  return (path.mode & rights) == rights;
}

std::string NameOf(uint32_t rights) {
  std::string text;
  for (const auto& row : kRights) {
    if ((rights & row.right) != 0) text += (text.empty() ? "" : " and ") + std::string(row.name);
  }
  return text;
}

std::string ShellWord(const std::string& text) {
  constexpr std::string_view kPlain =
      "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789/._-+:,@%";
  if (!text.empty() && text.find_first_not_of(kPlain) == text.npos) return text;
  std::string word = "'";
  for (const char c : text) word += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return word + "'";
}

std::string Sudo(const User& me, uint32_t owner) {
  return me.uid == 0 || me.uid == owner ? "" : "sudo ";
}

std::string Grant(const User& me, const User& user, const PathFacts& path, uint32_t rights,
                  const std::string& words) {
  const std::string sudo = Sudo(me, path.uid);
  const auto open = [&](const char* whom) {
    return "chmod " + (whom + Letters(rights)) + " " + words;
  };
  if (user.uid == path.uid) return sudo + open("u+");
  if (IsIn(user, path.gid)) return sudo + open("g+");
  if (S_ISCHR(path.mode) || S_ISFIFO(path.mode)) {
    const std::string own = "chown " + ShellWord(user.name) + " " + words;
    return Sudo(me) + own + " && " + Sudo(me) + open("u+");
  }
  const std::string share = "chgrp " + ShellWord(user.group) + " " + words;
  return Sudo(me) + share + " && " + sudo + open("g+");
}

std::string Join(const User& me, const PathFacts& path, uint32_t rights) {
  // Nobody should join root's group just to use a socket.
  if (me.uid == path.uid || IsIn(me, path.gid) || path.gid == 0 || !GroupHas(path, rights)) {
    return Grant(me, me, path, rights, ShellWord(path.path));
  }
  const std::string group = ShellWord(path.group);
  return "sudo usermod -aG " + group + " " + ShellWord(me.name) + " && newgrp " + group;
}

}  // namespace kvox::client
