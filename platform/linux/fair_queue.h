// Fair scheduling: users take turns, within a user its processes, within a process the items that
// it queued. The user or process with fewer items in flight goes first, and nobody has more than a
// share of them. So neither many connections nor many processes nor slow calls give anyone more
// than a fair share.
#pragma once

#include <algorithm>
#include <cstdint>
#include <deque>
#include <utility>

#include "platform/linux/credentials.h"
#include "platform/linux/fair_share.h"

namespace kvox::binder {

/// Whose item it is.
struct WorkOwner {
  uid_t user;
  uint64_t process;     // tells the user's processes apart
  bool limited = true;  // by the shares
};

struct WorkLimits {
  Places users;  // in flight
  int process;   // items of one process in flight
};

/// One thread at a time.
template <typename Item>
class FairQueue {
 public:
  explicit FairQueue(const WorkLimits& limits) : limits_(limits) {}

  /// Whether there is an item whose user and process are below their shares.
  bool HasNext() const {
    return std::ranges::any_of(users_, [this](const User& user) { return MayRun(user); });
  }

  /// Appends an item to its process's queue.
  void Push(const WorkOwner& owner, Item item) { Find(owner).items.push_back(std::move(item)); }

  /// Removes the item that is next; it is in flight until Finish. HasNext() must be true. For the
  /// last thread, processes that already occupy one go last.
  Item Pop(bool last_thread = false) {
    only_idle_ = last_thread && std::ranges::any_of(users_, [this](const User& user) {
                   return MayRun(user) &&
                          std::ranges::any_of(user.processes, [this](const Process& process) {
                            return MayRun(process) && process.occupied() == 0;
                          });
                 });
    User& user = PickNext(users_);
    Process& process = PickNext(user.processes);
    only_idle_ = false;
    Item item = std::move(process.items.front());
    process.items.pop_front();
    return item;
  }

  /// An item of `owner` in flight occupies no thread, or does so again.
  void SetLent(const WorkOwner& owner, bool lent) { Find(owner).lent += lent ? 1 : -1; }

  /// An item of `owner` is no longer in flight.
  void Finish(const WorkOwner& owner) {
    User& user = FindUser(owner);
    --user.in_flight;
    --Find(owner).in_flight;
    std::erase_if(user.processes,
                  [](const Process& each) { return each.items.empty() && each.in_flight == 0; });
    std::erase_if(users_, [](const User& each) { return each.processes.empty(); });
  }

 private:
  struct Process {
    uint64_t key;
    bool limited;
    int in_flight = 0;
    int lent = 0;
    std::deque<Item> items = {};

    int occupied() const { return in_flight - lent; }
  };
  struct User {
    std::pair<uid_t, bool> key;  // and whether it is limited
    int in_flight = 0;
    std::deque<Process> processes = {};
  };

  // Both lists are short: connections are limited.

  User& FindUser(const WorkOwner& owner) {
    const std::pair key(owner.user, owner.limited);
    const auto found = std::ranges::find(users_, key, &User::key);
    return found == users_.end() ? users_.emplace_back(User{key}) : *found;
  }
  Process& Find(const WorkOwner& owner) {
    std::deque<Process>& processes = FindUser(owner).processes;
    const auto found = std::ranges::find(processes, owner.process, &Process::key);
    if (found != processes.end()) return *found;
    return processes.emplace_back(Process{owner.process, owner.limited});
  }

  bool MayRun(const Process& process) const {
    return !process.items.empty() && (!process.limited || process.in_flight < limits_.process) &&
           !(only_idle_ && process.occupied() > 0);
  }
  bool MayRun(const User& user) const {
    return IsBelowShare(user) &&
           std::ranges::any_of(user.processes,
                               [this](const Process& process) { return MayRun(process); });
  }
  bool IsBelowShare(const User& user) const {
    const auto [uid, limited] = user.key;
    if (!limited) return true;
    PlaceCount count;
    for (const User& other : users_) {
      if (!other.key.second) continue;
      count.Add(&other == &user, IsPrivileged(other.key.first), other.in_flight);
    }
    return count.MayTake(limits_.users, IsPrivileged(uid));
  }

  /// Picks the entry that may run with the fewest items in flight and moves it to the back.
  template <typename Entry>
  Entry& PickNext(std::deque<Entry>& entries) {
    const auto next = std::ranges::min_element(
        entries, {}, [&](const Entry& each) { return std::pair(!MayRun(each), each.in_flight); });
    std::rotate(next, next + 1, entries.end());
    ++entries.back().in_flight;
    return entries.back();
  }

  const WorkLimits limits_;
  bool only_idle_ = false;  // while one is picked for the last thread
  std::deque<User> users_;
};

}  // namespace kvox::binder
