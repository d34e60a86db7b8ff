#include "platform/linux/service_load.h"

#include <algorithm>

#include "platform/linux/credentials.h"
#include "platform/linux/limits.h"

namespace kvox::binder {

int ServiceLoad::Account::large_frames_in_use() const {
  return unread > kPauseUnsentBytes ? 0 : large_frames;
}

uint64_t ServiceLoad::Add(uid_t user, std::weak_ptr<LoadMember> connection) {
  MutexLock lock(mutex_);
  accounts_.emplace(++last_member_, Account{.user = user, .connection = std::move(connection)});
  return last_member_;
}

void ServiceLoad::Remove(uint64_t member) {
  {
    MutexLock lock(mutex_);
    const auto found = accounts_.find(member);
    if (found == accounts_.end()) return;
    Account& account = found->second;
    End(account);
    account.waits = false;
    account.unread = 0;
    account.removed = true;
    // What is being served stays until it is returned.
    if (account.held == 0) accounts_.erase(found);
    wakes_waiting_ = true;
  }
  Relieve();
}

std::unique_ptr<ServiceLoad::Hold> ServiceLoad::TakeFrame(uint64_t member, size_t bytes) {
  {
    MutexLock lock(mutex_);
    Account& account = accounts_.at(member);
    if (bytes > kLargeFrame) {
      account.waits = !MayTakeLarge(account);
      if (account.waits) return nullptr;
      ++account.large_frames;
    }
    account.held += bytes;
    if (!account.ended) bytes_ += bytes;
  }
  auto hold = std::make_unique<Hold>(shared_from_this(), member, bytes);
  Relieve();
  return hold;
}

void ServiceLoad::Return(uint64_t member, size_t bytes) {
  {
    MutexLock lock(mutex_);
    const auto found = accounts_.find(member);
    Account& account = found->second;
    account.held -= bytes;
    if (!account.ended) bytes_ -= bytes;
    if (bytes > kLargeFrame) {
      --account.large_frames;
      wakes_waiting_ = true;
    }
    if (account.held == 0 && account.removed) accounts_.erase(found);
    if (!wakes_waiting_) return;
  }
  Relieve();
}

void ServiceLoad::SetUnread(uint64_t member, size_t bytes) {
  MutexLock lock(mutex_);
  const auto found = accounts_.find(member);
  if (found == accounts_.end()) return;
  Account& account = found->second;
  if (!account.ended) bytes_ += bytes - account.unread;  // may wrap around for a moment
  account.unread = bytes;
  if (account.large_frames > 0 && account.large_frames_in_use() == 0) wakes_waiting_ = true;
}

void ServiceLoad::Relieve() {
  std::vector<std::shared_ptr<LoadMember>> ending;
  std::vector<std::shared_ptr<LoadMember>> retrying;
  {
    MutexLock lock(mutex_);
    while (bytes_ > kMaxBytesOfAll) {
      Account* const largest = Largest();
      if (largest == nullptr) break;
      End(*largest);
      ending.push_back(largest->connection.lock());
    }
    if (std::exchange(wakes_waiting_, false)) {
      for (auto& [number, account] : accounts_) {
        if (!account.waits || !MayTakeLarge(account)) continue;
        account.waits = false;
        retrying.push_back(account.connection.lock());
      }
    }
  }
  for (const auto& connection : ending) {
    if (connection) connection->OnOverload();
  }
  for (const auto& connection : retrying) {
    if (connection) connection->OnLargeFrameMayFit();
  }
}

bool ServiceLoad::MayTakeLarge(const Account& account) const {
  PlaceCount count;
  for (const auto& [number, other] : accounts_) {
    count.Add(other.user == account.user, IsPrivileged(other.user), other.large_frames_in_use());
  }
  return count.MayTake(kLargeFrames, IsPrivileged(account.user));
}

ServiceLoad::Account* ServiceLoad::Largest() {
  std::map<uid_t, size_t> of_users;
  for (const auto& [number, account] : accounts_) of_users[account.user] += account.bytes();
  const auto key = [&](Accounts::value_type& each) {
    return std::pair(of_users[each.second.user], each.second.bytes());
  };
  const auto largest = std::ranges::max_element(accounts_, {}, key);
  if (largest == accounts_.end() || largest->second.bytes() == 0) return nullptr;
  return &largest->second;
}

void ServiceLoad::End(Account& account) {
  bytes_ -= account.bytes();
  account.ended = true;
}

}  // namespace kvox::binder
