// Base classes of an interface's C++ side: reference counting, stubs and proxies.
#pragma once

#include <android/binder_auto_utils.h>
#include <android/binder_ibinder.h>
#include <assert.h>
#include <string.h>

#include <cstdint>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>
#include <string_view>
#include <tuple>
#include <utility>

namespace ndk {

/// Created by SharedRefBase::make, owned by the shared pointers that ref() returns.
class SharedRefBase {
 public:
  SharedRefBase() = default;
  SharedRefBase(const SharedRefBase&) = delete;
  SharedRefBase& operator=(const SharedRefBase&) = delete;
  virtual ~SharedRefBase() = default;

  std::shared_ptr<SharedRefBase> ref() {
    std::shared_ptr<SharedRefBase> self;
    std::call_once(owned_, [&] {
      self.reset(this);
      self_ = self;
    });
    return self != nullptr ? self : self_.lock();
  }
  template <typename T>
  std::shared_ptr<T> ref() {
    return std::static_pointer_cast<T>(ref());
  }
  template <typename T, typename... Args>
  static std::shared_ptr<T> make(Args&&... args) {
    T* object = new T(std::forward<Args>(args)...);
    return object->template ref<T>();  // NOLINT: the reference owns the object
  }
  static void operator delete(void* memory) { ::operator delete(memory); }

 private:
  // A plain `new` would create an object that nothing owns.
  static void* operator new(size_t size) { return ::operator new(size); }

  std::once_flag owned_;
  std::weak_ptr<SharedRefBase> self_;
};

/// An interface, on either side. The order of the virtual functions is fixed.
class ICInterface : public SharedRefBase {
 public:
  virtual SpAIBinder asBinder() = 0;
  virtual bool isRemote() = 0;
  virtual binder_status_t dump(int, const char**, uint32_t) { return STATUS_OK; }
  virtual binder_status_t handleShellCommand(int, int, int, const char**, uint32_t) {
    return STATUS_OK;
  }

  /// The implementation behind a local object; null for a remote one.
  static std::shared_ptr<ICInterface> asInterface(AIBinder* binder) {
    auto* owner = static_cast<Owner*>(AIBinder_getUserData(binder));
    return owner == nullptr ? nullptr : *owner;
  }
  /// The names of the functions are for tracing, which a host does not have.
  static AIBinder_Class* defineClass(const char* descriptor, AIBinder_Class_onTransact onTransact,
                                     const char** /*codeToFunction*/ = nullptr, size_t = 0) {
    AIBinder_Class* clazz = AIBinder_Class_define(descriptor, OnCreate, OnDestroy, onTransact);
    if (clazz != nullptr) AIBinder_Class_setOnDump(clazz, OnDump);
    return clazz;
  }

 private:
  using Owner = std::shared_ptr<ICInterface>;

  static void* OnCreate(void* interface) {
    return new Owner(static_cast<ICInterface*>(interface)->ref<ICInterface>());
  }
  static void OnDestroy(void* owner) { delete static_cast<Owner*>(owner); }
  static binder_status_t OnDump(AIBinder* binder, int fd, const char** args, uint32_t count) {
    return asInterface(binder)->dump(fd, args, count);
  }
};

/// Base of a stub. Its object is created on demand, again when the last one is gone.
template <typename INTERFACE>
class BnCInterface : public INTERFACE {
 public:
  SpAIBinder asBinder() final {
    const std::lock_guard<std::mutex> lock(mutex_);
    SpAIBinder binder(AIBinder_Weak_promote(weak_.get()));
    if (binder.get() == nullptr) {
      binder = createBinder();
      weak_.set(AIBinder_Weak_new(binder.get()));
    }
    return binder;
  }
  bool isRemote() final { return false; }
  static std::string makeServiceName(std::string_view instance) {
    return std::string(INTERFACE::descriptor).append("/").append(instance);
  }

 protected:
  virtual SpAIBinder createBinder() = 0;

 private:
  std::mutex mutex_;
  ScopedAIBinder_Weak weak_;
};

/// Base of a proxy.
template <typename INTERFACE>
class BpCInterface : public INTERFACE {
 public:
  explicit BpCInterface(const SpAIBinder& binder) : binder_(binder) {}

  SpAIBinder asBinder() final { return binder_; }
  const SpAIBinder& asBinderReference() { return binder_; }
  bool isRemote() final { return AIBinder_isRemote(binder_.get()); }
  binder_status_t dump(int fd, const char** args, uint32_t count) override {
    return AIBinder_dump(binder_.get(), fd, args, count);
  }

 private:
  const SpAIBinder binder_;
};

}  // namespace ndk
