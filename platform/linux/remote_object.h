// An object that lives in another process.
#pragma once

#include <atomic>
#include <memory>
#include <string>

#include "platform/linux/binder_object.h"

namespace kvox::binder {

class Connection;

/// Bound to its connection, whose object table has it under `id` as long as there is a strong
/// reference.
class RemoteObject final : public AIBinder {
 public:
  RemoteObject(std::shared_ptr<Connection> connection, uint64_t id, std::string descriptor);

  const Connection* connection() const { return connection_.get(); }
  uint64_t id() const { return id_; }
  bool dead() const { return dead_.load(std::memory_order_relaxed); }
  /// Later calls return STATUS_DEAD_OBJECT. ReportDeath follows.
  void Die() { dead_.store(true, std::memory_order_relaxed); }

  bool AssociateClass(const AIBinder_Class* clazz) override;
  binder_status_t Transact(transaction_code_t code, AParcel& in, binder_flags_t flags,
                           std::unique_ptr<AParcel>* out) override;
  RemoteObject* AsRemote() override { return this; }

 private:
  void OnLastStrong() override;

  const std::shared_ptr<Connection> connection_;
  const uint64_t id_;
  const std::string descriptor_;
  std::atomic<bool> dead_ = false;  // relaxed: orders nothing else
};

}  // namespace kvox::binder
