// An object that lives in another process.
#pragma once

#include <atomic>
#include <memory>
#include <string>
#include <utility>

#include "platform/linux/binder_object.h"
#include "platform/linux/connection.h"

namespace kvox::binder {

class RemoteObject;

/// Reports the death of a dead object to its recipients: died, then unlinked. On a pool thread.
void ReportDeath(const RemoteObject& object);
/// Unlinks the recipients of an object that has no reference left. Any thread.
void UnlinkAll(const RemoteObject& object);

/// Bound to its connection, whose object table has it under `id` as long as there is a strong
/// reference.
class RemoteObject final : public AIBinder {
 public:
  RemoteObject(std::shared_ptr<Connection> connection, uint64_t id, std::string descriptor)
      : AIBinder(nullptr),
        connection_(std::move(connection)),
        id_(id),
        descriptor_(std::move(descriptor)) {}

  const Connection* connection() const { return connection_.get(); }
  uint64_t id() const { return id_; }
  bool dead() const { return dead_.load(std::memory_order_relaxed); }
  /// Later calls return STATUS_DEAD_OBJECT. ReportDeath follows.
  void Die() { dead_.store(true, std::memory_order_relaxed); }

  bool AssociateClass(const AIBinder_Class* wanted) override {
    return wanted->descriptor == descriptor_ && SetClass(wanted) == wanted;
  }
  binder_status_t Transact(transaction_code_t code, AParcel& in, binder_flags_t flags,
                           std::unique_ptr<AParcel>* out) override {
    return dead() ? STATUS_DEAD_OBJECT : connection_->Transact(id_, code, in, flags, out);
  }
  RemoteObject* AsRemote() override { return this; }

 private:
  void OnLastStrong() override {
    connection_->Forget(*this);
    UnlinkAll(*this);
  }

  const std::shared_ptr<Connection> connection_;
  const uint64_t id_;
  const std::string descriptor_;
  std::atomic<bool> dead_ = false;  // relaxed: orders nothing else
};

}  // namespace kvox::binder
