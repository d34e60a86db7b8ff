// State shared by a registered service and its connections.
#pragma once

#include <android/binder_auto_utils.h>

#include <algorithm>
#include <utility>
#include <vector>

#include "kvox/common/mutex.h"
#include "platform/linux/credentials.h"
#include "platform/linux/frames.h"
#include "platform/linux/limits.h"

namespace kvox::binder {

class ServicePort {
 public:
  explicit ServicePort(ndk::SpAIBinder root) : root_(std::move(root)) {}

  /// The service's object.
  ndk::SpAIBinder root() const {
    MutexLock lock(mutex_);
    return root_;
  }
  /// Returns the previous object, for the caller to drop.
  ndk::SpAIBinder Replace(ndk::SpAIBinder root) {
    MutexLock lock(mutex_);
    return std::exchange(root_, std::move(root));
  }

  /// Admits and counts a client, unless its process, its user or the service is at its limit.
  AdmitResult Admit(const Credentials& client) {
    MutexLock lock(mutex_);
    const auto same_process = [&](const Credentials& other) { return other.pid == client.pid; };
    const auto same_user = [&](const Credentials& other) { return other.uid == client.uid; };
    // All processes outside this one's pid namespace have number 0.
    if (client.pid != 0 &&
        std::ranges::count_if(clients_, same_process) >= kMaxConnectionsOfProcess) {
      return AdmitResult::kTooManyOfProcess;
    }
    if (std::ranges::count_if(clients_, same_user) >= kMaxConnectionsOfUser) {
      return AdmitResult::kTooManyOfUser;
    }
    if (clients_.size() >= kMaxConnections) return AdmitResult::kTooManyClients;
    clients_.push_back(client);
    return AdmitResult::kAdmitted;
  }
  /// An admitted client is gone.
  void Leave(const Credentials& client) {
    MutexLock lock(mutex_);
    const auto found = std::ranges::find(clients_, client);
    if (found != clients_.end()) clients_.erase(found);
  }

 private:
  mutable Mutex mutex_;
  ndk::SpAIBinder root_ GUARDED_BY(mutex_);
  std::vector<Credentials> clients_ GUARDED_BY(mutex_);
};

}  // namespace kvox::binder
