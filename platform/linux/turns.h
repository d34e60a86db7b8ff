// Whose turn it is: users take turns, within a user its processes, within a process what it has
// queued. Who has fewer items under way goes first. So neither many connections nor many processes
// nor slow calls get anybody more than a share.
#pragma once

#include <algorithm>
#include <cstddef>
#include <deque>
#include <utility>

#include "platform/linux/credentials.h"

namespace kvox::binder {

/// Not for several threads at a time.
template <typename Item>
class Turns {
 public:
  bool empty() const { return waiting_ == 0; }

  /// Puts an item last in its process's queue.
  void Add(const Credentials& owner, Item item) {
    User& user = FindOrAdd(users_, &User::uid, owner.uid);
    FindOrAdd(user.processes, &Process::pid, owner.pid).items.push_back(std::move(item));
    ++user.waiting;
    ++waiting_;
  }

  /// Takes the item whose turn it is, which is under way then. There must be one.
  Item Take() {
    User& user = TakeTurn(users_, [](const User& each) { return each.waiting > 0; });
    Process& process =
        TakeTurn(user.processes, [](const Process& each) { return !each.items.empty(); });
    Item item = std::move(process.items.front());
    process.items.pop_front();
    --user.waiting;
    --waiting_;
    return item;
  }

  /// An item of `owner` that was taken is not under way any more.
  void Done(const Credentials& owner) {
    User& user = FindOrAdd(users_, &User::uid, owner.uid);
    --user.under_way;
    --FindOrAdd(user.processes, &Process::pid, owner.pid).under_way;
    std::erase_if(user.processes,
                  [](const Process& each) { return each.items.empty() && each.under_way == 0; });
    std::erase_if(users_, [](const User& each) { return each.processes.empty(); });
  }

 private:
  struct Process {
    pid_t pid;
    int under_way = 0;
    std::deque<Item> items = {};
  };
  struct User {
    uid_t uid;
    int under_way = 0;
    size_t waiting = 0;
    std::deque<Process> processes = {};
  };

  // Both lists are short: connections are limited.

  template <typename Entry, typename Id>
  static Entry& FindOrAdd(std::deque<Entry>& entries, Id Entry::*id, Id wanted) {
    const auto found = std::ranges::find(entries, wanted, id);
    return found == entries.end() ? entries.emplace_back(Entry{wanted}) : *found;
  }

  /// The first of those that wait with the least under way; it goes to the end.
  template <typename Entry, typename Waits>
  static Entry& TakeTurn(std::deque<Entry>& entries, const Waits& waits) {
    const auto next = std::ranges::min_element(
        entries, {}, [&](const Entry& each) { return std::pair(!waits(each), each.under_way); });
    std::rotate(next, next + 1, entries.end());
    ++entries.back().under_way;
    return entries.back();
  }

  size_t waiting_ = 0;
  std::deque<User> users_;
};

}  // namespace kvox::binder
