// Objects as every part of the transport sees them, and the local ones: reference counts, class,
// and how a call reaches the implementation.
#pragma once

#include <android/binder_auto_utils.h>
#include <android/binder_ibinder.h>
#include <sys/types.h>

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
}

/// Made with one strong reference. The last strong one ends what the object stands for; its memory
/// lasts for the weak ones. Any thread.
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

  /// The class, null for a remote object that was not given one.
  const AIBinder_Class* clazz() const;

  virtual bool AssociateClass(const AIBinder_Class* clazz) = 0;
  /// Makes a call and waits for its reply. What `in` refers to is given its addresses in it.
  virtual binder_status_t Transact(transaction_code_t code, AParcel& in, binder_flags_t flags,
                                   std::unique_ptr<AParcel>* out) = 0;
  /// This object if it is a remote one, else null.
  virtual kvox::binder::RemoteObject* AsRemote() { return nullptr; }

 protected:
  explicit AIBinder(const AIBinder_Class* clazz) : clazz_(clazz) {}
  virtual ~AIBinder() = default;
  /// The last strong reference is gone.
  virtual void OnLastStrong() = 0;
  /// Sets the class unless there is one; answers the class there is.
  const AIBinder_Class* SetClass(const AIBinder_Class* clazz);

 private:
  std::atomic<int32_t> strong_ = 1;
  std::atomic<int32_t> weak_ = 1;  // one of them is the strong ones' together
  std::atomic<const AIBinder_Class*> clazz_;
};

namespace kvox::binder {

/// Calls that the library answers for every object.
inline constexpr transaction_code_t kPingTransaction = 0x5f504e47;        // "_PNG"
inline constexpr transaction_code_t kDescriptorTransaction = 0x5f4e5446;  // "_NTF"
inline constexpr transaction_code_t kDumpTransaction = 0x5f444d50;        // "_DMP"

/// An object that lives in this process.
class LocalObject final : public AIBinder {
 public:
  LocalObject(const AIBinder_Class* clazz, void* args);

  void* user_data() const { return user_data_; }
  /// Serves one call on this thread.
  binder_status_t Handle(transaction_code_t code, const AParcel& in, AParcel& out);

  bool AssociateClass(const AIBinder_Class* clazz) override;
  binder_status_t Transact(transaction_code_t code, AParcel& in, binder_flags_t flags,
                           std::unique_ptr<AParcel>* out) override;

 private:
  void OnLastStrong() override;

  void* const user_data_;
};

/// Whom a thread serves.
struct Caller {
  uid_t uid;
  pid_t pid;

  bool operator==(const Caller&) const = default;
};

/// Makes `caller` the calling thread's for a scope.
class ScopedCaller {
 public:
  explicit ScopedCaller(const Caller& caller);
  ~ScopedCaller();
  ScopedCaller(const ScopedCaller&) = delete;
  ScopedCaller& operator=(const ScopedCaller&) = delete;

 private:
  const Caller* const previous_;
};

inline ndk::SpAIBinder StrongReference(AIBinder* binder) {
  AIBinder_incStrong(binder);
  return ndk::SpAIBinder(binder);
}

}  // namespace kvox::binder
