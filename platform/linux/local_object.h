// An object that lives in this process, and how a call reaches its implementation.
#pragma once

#include "platform/linux/binder_object.h"

namespace kvox::binder {

class LocalObject final : public AIBinder {
 public:
  LocalObject(const AIBinder_Class* clazz, void* args);

  void* user_data() const { return user_data_; }
  /// Serves one call on the calling thread.
  binder_status_t Handle(transaction_code_t code, const AParcel& in, AParcel& out);

  bool AssociateClass(const AIBinder_Class* clazz) override;
  binder_status_t Transact(transaction_code_t code, AParcel& in, binder_flags_t flags,
                           std::unique_ptr<AParcel>* out) override;

 private:
  void OnLastStrong() override;

  void* const user_data_;
};

}  // namespace kvox::binder
