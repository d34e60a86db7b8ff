// State shared by a registered service and its connections.
#pragma once

#include <android/binder_auto_utils.h>

#include <algorithm>
#include <memory>
#include <utility>
#include <vector>

#include "kvox/common/mutex.h"
#include "platform/linux/credentials.h"
#include "platform/linux/fair_share.h"
#include "platform/linux/frames.h"
#include "platform/linux/limits.h"
#include "platform/linux/service_load.h"

namespace kvox::binder {

class ServicePort {
 public:
  explicit ServicePort(ndk::SpAIBinder root) : root_(std::move(root)) {}

  const std::shared_ptr<ServiceLoad>& load() const { return load_; }

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

  /// Admits and counts a client, unless its process, its user or the service is at its limit. Root
  /// and the service's own user find places that others do not get.
  AdmitResult Admit(const Credentials& client) {
    MutexLock lock(mutex_);
    PlaceCount count;
    int of_process = 0;
    for (const Credentials& other : clients_) {
      count.Add(other.uid == client.uid, IsPrivileged(other.uid), 1);
      of_process += other.pid == client.pid ? 1 : 0;
    }
    // All processes outside this one's pid namespace have number 0.
    if (client.pid != 0 && of_process >= kMaxConnectionsOfProcess) {
      return AdmitResult::kTooManyOfProcess;
    }
    const int share = count.Share(kConnections, IsPrivileged(client.uid));
    if (share <= 0 || count.all() >= kConnections.all) return AdmitResult::kTooManyClients;
    if (count.of_user() >= share) return AdmitResult::kTooManyOfUser;
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
  const std::shared_ptr<ServiceLoad> load_ = std::make_shared<ServiceLoad>();
  mutable Mutex mutex_;
  ndk::SpAIBinder root_ GUARDED_BY(mutex_);
  std::vector<Credentials> clients_ GUARDED_BY(mutex_);
};

/// An admitted client's place in the service.
class ClientPlace {
 public:
  ClientPlace(std::shared_ptr<ServicePort> port, const Credentials& client)
      : port_(std::move(port)), client_(client) {}
  ~ClientPlace() { port_->Leave(client_); }
  ClientPlace(const ClientPlace&) = delete;
  ClientPlace& operator=(const ClientPlace&) = delete;

 private:
  const std::shared_ptr<ServicePort> port_;
  const Credentials client_;
};

}  // namespace kvox::binder
