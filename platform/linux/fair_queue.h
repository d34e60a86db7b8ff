// Fair scheduling: users take turns, within a user its processes, within a process the items that
// it queued. The user or process with fewer items in flight goes first. So neither many connections
// nor many processes nor slow calls give anyone more than a fair share.
#pragma once

#include <algorithm>
#include <cstddef>
#include <deque>
#include <utility>

#include "platform/linux/credentials.h"

namespace kvox::binder {

/// One thread at a time.
template <typename Item>
class FairQueue {
 public:
  bool empty() const { return waiting_ == 0; }

  /// Appends an item to its process's queue.
  void Push(const Credentials& owner, Item item) {
    User& user = FindOrAdd(users_, &User::uid, owner.uid);
    FindOrAdd(user.processes, &Process::pid, owner.pid).items.push_back(std::move(item));
    ++user.waiting;
    ++waiting_;
  }

  /// Removes the item that is next; it is in flight until Finish. The queue must not be empty.
  Item Pop() {
    User& user = PickNext(users_, [](const User& each) { return each.waiting > 0; });
    Process& process =
        PickNext(user.processes, [](const Process& each) { return !each.items.empty(); });
    Item item = std::move(process.items.front());
    process.items.pop_front();
    --user.waiting;
    --waiting_;
    return item;
  }

  /// An item of `owner` is no longer in flight.
  void Finish(const Credentials& owner) {
    User& user = FindOrAdd(users_, &User::uid, owner.uid);
    --user.in_flight;
    --FindOrAdd(user.processes, &Process::pid, owner.pid).in_flight;
    std::erase_if(user.processes,
                  [](const Process& each) { return each.items.empty() && each.in_flight == 0; });
    std::erase_if(users_, [](const User& each) { return each.processes.empty(); });
  }

 private:
  struct Process {
    pid_t pid;
    int in_flight = 0;
    std::deque<Item> items = {};
  };
  struct User {
    uid_t uid;
    int in_flight = 0;
    size_t waiting = 0;
    std::deque<Process> processes = {};
  };

  // Both lists are short: connections are limited.

  template <typename Entry, typename Id>
  static Entry& FindOrAdd(std::deque<Entry>& entries, Id Entry::*id, Id wanted) {
    const auto found = std::ranges::find(entries, wanted, id);
    return found == entries.end() ? entries.emplace_back(Entry{wanted}) : *found;
  }

  /// Picks the waiting entry with the fewest items in flight and moves it to the back.
  template <typename Entry, typename Waits>
  static Entry& PickNext(std::deque<Entry>& entries, const Waits& waits) {
    const auto next = std::ranges::min_element(
        entries, {}, [&](const Entry& each) { return std::pair(!waits(each), each.in_flight); });
    std::rotate(next, next + 1, entries.end());
    ++entries.back().in_flight;
    return entries.back();
  }

  size_t waiting_ = 0;
  std::deque<User> users_;
};

}  // namespace kvox::binder
