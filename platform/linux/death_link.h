// Death notices: links between remote objects and recipients. Each link is reported once, by
// whoever claims it first: the object's death (died, then unlinked) or its removal (unlinked).
#pragma once

#include <android/binder_ibinder.h>

#include <atomic>
#include <memory>
#include <vector>

#include "kvox/common/mutex.h"

namespace kvox::binder {

class DeathLink {
 public:
  DeathLink(const AIBinder_DeathRecipient* recipient, void* cookie);

  bool Is(const AIBinder_DeathRecipient* recipient, void* cookie) const {
    return recipient == recipient_ && cookie == cookie_;
  }
  bool claimed() const { return claimed_.load(std::memory_order_relaxed); }
  void ReportDeath();
  void Remove();

 private:
  // Relaxed, here and above: it only decides who reports; all that is reported never changes.
  bool Claim() { return !claimed_.exchange(true, std::memory_order_relaxed); }

  const AIBinder_DeathRecipient* const recipient_;  // only compared
  void* const cookie_;
  const AIBinder_DeathRecipient_onBinderDied on_died_;
  const AIBinder_DeathRecipient_onBinderUnlinked on_unlinked_;
  std::atomic<bool> claimed_ = false;
};

using DeathLinkList = std::vector<std::shared_ptr<DeathLink>>;

/// The links of one object, which takes them with Die when its last reference goes. The recipients'
/// functions never run under the lock.
class DeathLinks {
 public:
  binder_status_t Add(AIBinder_DeathRecipient* recipient, void* cookie);
  binder_status_t Remove(const AIBinder_DeathRecipient* recipient, void* cookie);
  /// The object is dead from now on; answers what is to be reported.
  DeathLinkList Die();
  bool dead() const;

 private:
  mutable Mutex mutex_;
  bool dead_ GUARDED_BY(mutex_) = false;
  DeathLinkList links_ GUARDED_BY(mutex_);
};

}  // namespace kvox::binder
