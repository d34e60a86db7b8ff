// Death notices: which recipients are linked to which remote objects.
#include <android/binder_ibinder.h>

#include <algorithm>
#include <atomic>
#include <optional>
#include <vector>

#include "kvox/common/log.h"
#include "kvox/common/mutex.h"
#include "platform/linux/remote_object.h"

struct AIBinder_DeathRecipient {
  const AIBinder_DeathRecipient_onBinderDied on_died;
  // Relaxed: a function's address orders nothing else.
  std::atomic<AIBinder_DeathRecipient_onBinderUnlinked> on_unlinked = nullptr;
};

namespace kvox::binder {
namespace {

/// The functions are the recipient's at the time of linking.
struct DeathLink {
  const RemoteObject* object;
  const AIBinder_DeathRecipient* recipient;  // only compared
  void* cookie;
  AIBinder_DeathRecipient_onBinderDied on_died;
  AIBinder_DeathRecipient_onBinderUnlinked on_unlinked;

  void Unlink() const {
    if (on_unlinked != nullptr) on_unlinked(cookie);
  }
};

/// All links of the process. Every link is reported by the thread that removes it from here, so it
/// is reported once; the recipients' functions never run under the lock.
struct LinkTable {
  Mutex mutex;
  std::vector<DeathLink> links GUARDED_BY(mutex);

  /// Removes the first link that the condition holds for, if there is one.
  template <typename Condition>
  std::optional<DeathLink> RemoveFirst(const Condition& condition) {
    MutexLock lock(mutex);
    const auto found = std::ranges::find_if(links, condition);
    if (found == links.end()) return std::nullopt;
    const DeathLink link = *found;
    links.erase(found);
    return link;
  }
};

LinkTable& Table() {
  static auto* const table = new LinkTable;  // outlives every thread, also at exit
  return *table;
}

}  // namespace

void ReportDeath(const RemoteObject& object) {
  const auto is_of_object = [&](const DeathLink& link) { return link.object == &object; };
  while (const auto link = Table().RemoveFirst(is_of_object)) {
    link->on_died(link->cookie);
    link->Unlink();
  }
}

void UnlinkAll(const RemoteObject& object) {
  const auto is_of_object = [&](const DeathLink& link) { return link.object == &object; };
  while (const auto link = Table().RemoveFirst(is_of_object)) link->Unlink();
}

}  // namespace kvox::binder

using kvox::binder::DeathLink;
using kvox::binder::RemoteObject;
using kvox::binder::Table;

AIBinder_DeathRecipient* AIBinder_DeathRecipient_new(
    AIBinder_DeathRecipient_onBinderDied onBinderDied) {
  return onBinderDied == nullptr ? nullptr : new AIBinder_DeathRecipient{onBinderDied};
}

void AIBinder_DeathRecipient_setOnUnlinked(AIBinder_DeathRecipient* recipient,
                                           AIBinder_DeathRecipient_onBinderUnlinked onUnlinked) {
  if (recipient != nullptr) recipient->on_unlinked.store(onUnlinked, std::memory_order_relaxed);
}

void AIBinder_DeathRecipient_delete(AIBinder_DeathRecipient* recipient) {
  if (recipient == nullptr) return;
  const auto is_of_recipient = [&](const DeathLink& link) { return link.recipient == recipient; };
  while (const auto link = Table().RemoveFirst(is_of_recipient)) link->Unlink();
  delete recipient;
}

binder_status_t AIBinder_linkToDeath(AIBinder* binder, AIBinder_DeathRecipient* recipient,
                                     void* cookie) {
  if (binder == nullptr || recipient == nullptr) return STATUS_UNEXPECTED_NULL;
  const auto on_unlinked = recipient->on_unlinked.load(std::memory_order_relaxed);
  if (cookie != nullptr && on_unlinked == nullptr) {
    kvox::LogWarning("binder: a death link with a cookie has no function to give it back to");
  }
  const RemoteObject* remote = binder->AsRemote();
  const DeathLink link{remote, recipient, cookie, recipient->on_died, on_unlinked};
  if (remote != nullptr) {
    auto& table = Table();
    kvox::MutexLock lock(table.mutex);
    // A death is reported after the object has died: a link that is added before that is reported.
    if (!remote->dead()) {
      table.links.push_back(link);
      return STATUS_OK;
    }
  }
  link.Unlink();
  return remote == nullptr ? STATUS_INVALID_OPERATION : STATUS_DEAD_OBJECT;
}

binder_status_t AIBinder_unlinkToDeath(AIBinder* binder, AIBinder_DeathRecipient* recipient,
                                       void* cookie) {
  if (binder == nullptr || recipient == nullptr) return STATUS_UNEXPECTED_NULL;
  const RemoteObject* remote = binder->AsRemote();
  if (remote == nullptr) return STATUS_INVALID_OPERATION;
  if (remote->dead()) return STATUS_DEAD_OBJECT;
  const auto is_link = [&](const DeathLink& link) {
    return link.object == remote && link.recipient == recipient && link.cookie == cookie;
  };
  const auto link = Table().RemoveFirst(is_link);
  if (!link) return STATUS_NAME_NOT_FOUND;
  link->Unlink();
  return STATUS_OK;
}

bool AIBinder_isAlive(const AIBinder* binder) {
  if (binder == nullptr) return false;
  const RemoteObject* remote = const_cast<AIBinder*>(binder)->AsRemote();
  return remote == nullptr || !remote->dead();
}
