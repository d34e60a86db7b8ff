#include "platform/linux/death_link.h"

#include <algorithm>
#include <utility>

#include "kvox/common/log.h"
#include "platform/linux/remote_object.h"

struct AIBinder_DeathRecipient {
  explicit AIBinder_DeathRecipient(AIBinder_DeathRecipient_onBinderDied died) : on_died(died) {}

  const AIBinder_DeathRecipient_onBinderDied on_died;
  std::atomic<AIBinder_DeathRecipient_onBinderUnlinked> on_unlinked = nullptr;
  kvox::Mutex mutex;
  std::vector<std::weak_ptr<kvox::binder::DeathLink>> links GUARDED_BY(mutex);
};

namespace kvox::binder {

DeathLink::DeathLink(const AIBinder_DeathRecipient* recipient, void* cookie)
    : recipient_(recipient),
      cookie_(cookie),
      on_died_(recipient->on_died),
      // Relaxed: a function's address stands for itself.
      on_unlinked_(recipient->on_unlinked.load(std::memory_order_relaxed)) {}

void DeathLink::ReportDeath() {
  if (!Claim()) return;
  on_died_(cookie_);
  if (on_unlinked_ != nullptr) on_unlinked_(cookie_);
}

void DeathLink::Remove() {
  if (Claim() && on_unlinked_ != nullptr) on_unlinked_(cookie_);
}

binder_status_t DeathLinks::Add(AIBinder_DeathRecipient* recipient, void* cookie) {
  auto link = std::make_shared<DeathLink>(recipient, cookie);
  {
    MutexLock lock(mutex_);
    if (!dead_) {
      std::erase_if(links_, [](const auto& old) { return old->claimed(); });
      links_.push_back(link);
    }
    if (dead_) link = nullptr;
  }
  if (link == nullptr) {
    DeathLink(recipient, cookie).Remove();
    return STATUS_DEAD_OBJECT;
  }
  MutexLock lock(recipient->mutex);
  std::erase_if(recipient->links, [](const auto& old) { return old.expired(); });
  recipient->links.push_back(link);
  return STATUS_OK;
}

binder_status_t DeathLinks::Remove(const AIBinder_DeathRecipient* recipient, void* cookie) {
  std::shared_ptr<DeathLink> link;
  {
    MutexLock lock(mutex_);
    if (dead_) return STATUS_DEAD_OBJECT;
    const auto found = std::ranges::find_if(
        links_, [&](const auto& each) { return each->Is(recipient, cookie) && !each->claimed(); });
    if (found == links_.end()) return STATUS_NAME_NOT_FOUND;
    link = std::move(*found);
    links_.erase(found);
  }
  link->Remove();
  return STATUS_OK;
}

DeathLinkList DeathLinks::Die() {
  MutexLock lock(mutex_);
  dead_ = true;
  return std::exchange(links_, {});
}

bool DeathLinks::dead() const {
  MutexLock lock(mutex_);
  return dead_;
}

}  // namespace kvox::binder

AIBinder_DeathRecipient* AIBinder_DeathRecipient_new(
    AIBinder_DeathRecipient_onBinderDied onBinderDied) {
  if (onBinderDied == nullptr) return nullptr;
  return new AIBinder_DeathRecipient(onBinderDied);
}

void AIBinder_DeathRecipient_setOnUnlinked(AIBinder_DeathRecipient* recipient,
                                           AIBinder_DeathRecipient_onBinderUnlinked onUnlinked) {
  if (recipient != nullptr) recipient->on_unlinked.store(onUnlinked, std::memory_order_relaxed);
}

void AIBinder_DeathRecipient_delete(AIBinder_DeathRecipient* recipient) {
  if (recipient == nullptr) return;
  std::vector<std::weak_ptr<kvox::binder::DeathLink>> links;
  {
    kvox::MutexLock lock(recipient->mutex);
    links.swap(recipient->links);
  }
  for (const auto& weak : links) {
    if (const auto link = weak.lock()) link->Remove();
  }
  delete recipient;
}

binder_status_t AIBinder_linkToDeath(AIBinder* binder, AIBinder_DeathRecipient* recipient,
                                     void* cookie) {
  if (binder == nullptr || recipient == nullptr) return STATUS_UNEXPECTED_NULL;
  if (cookie != nullptr && recipient->on_unlinked.load(std::memory_order_relaxed) == nullptr) {
    kvox::LogWarning("binder: a death link with a cookie has no function to give it back to");
  }
  auto* remote = binder->AsRemote();
  if (remote != nullptr) return remote->death_links().Add(recipient, cookie);
  kvox::binder::DeathLink(recipient, cookie).Remove();
  return STATUS_INVALID_OPERATION;
}

binder_status_t AIBinder_unlinkToDeath(AIBinder* binder, AIBinder_DeathRecipient* recipient,
                                       void* cookie) {
  if (binder == nullptr || recipient == nullptr) return STATUS_UNEXPECTED_NULL;
  auto* remote = binder->AsRemote();
  if (remote == nullptr) return STATUS_INVALID_OPERATION;
  return remote->death_links().Remove(recipient, cookie);
}

bool AIBinder_isAlive(const AIBinder* binder) {
  if (binder == nullptr) return false;
  auto* remote = const_cast<AIBinder*>(binder)->AsRemote();
  return remote == nullptr || !remote->death_links().dead();
}
