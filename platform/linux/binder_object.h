// What every object of the transport has, local or remote: reference counts, a class, calls.
#pragma once

#include <android/binder_auto_utils.h>
#include <android/binder_ibinder.h>

#include <atomic>
#include <memory>
#include <string>

struct AIBinder_Class {
  const std::string descriptor;
  const AIBinder_Class_onCreate on_create;
  const AIBinder_Class_onDestroy on_destroy;
  const AIBinder_Class_onTransact on_transact;
  AIBinder_onDump on_dump = nullptr;
};

namespace kvox::binder {
class RemoteObject;
}  // namespace kvox::binder

/// Created with one strong reference. Dropping the last strong reference ends the object's use; its
/// memory is freed with the last weak one. Any thread.
struct AIBinder {
 public:
  AIBinder(const AIBinder&) = delete;
  AIBinder& operator=(const AIBinder&) = delete;

  void IncStrong();
  void DecStrong();
  /// False once the last strong reference is gone.
  bool TryIncStrong();
  void IncWeak();
  void DecWeak();

  /// The class; null for a remote object that was not given one.
  const AIBinder_Class* clazz() const;

  virtual bool AssociateClass(const AIBinder_Class* clazz) = 0;
  /// Makes a call and waits for its reply. Sets the addresses of the objects that `in` refers to.
  virtual binder_status_t Transact(transaction_code_t code, AParcel& in, binder_flags_t flags,
                                   std::unique_ptr<AParcel>* out) = 0;
  /// This object if it is remote, else null.
  virtual kvox::binder::RemoteObject* AsRemote() { return nullptr; }

 protected:
  explicit AIBinder(const AIBinder_Class* clazz) : clazz_(clazz) {}
  virtual ~AIBinder() = default;
  /// The last strong reference is gone.
  virtual void OnLastStrong() = 0;
  /// Sets the class unless there is one; returns the class there is.
  const AIBinder_Class* SetClass(const AIBinder_Class* clazz);

 private:
  std::atomic<int32_t> strong_ = 1;
  std::atomic<int32_t> weak_ = 1;  // the strong references hold one together
  std::atomic<const AIBinder_Class*> clazz_;
};
