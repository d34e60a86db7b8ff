// Owners for the objects of the binder NDK.
#pragma once

#include <android/binder_ibinder.h>
#include <android/binder_parcel.h>
#include <android/binder_status.h>

#include <compare>
#include <cstddef>
#include <ostream>
#include <string>
#include <utility>

namespace ndk {

/// One strong reference to an object, or null.
class SpAIBinder {
 public:
  SpAIBinder() = default;
  SpAIBinder(std::nullptr_t) {}  // implicit, so that `return nullptr` works
  /// Takes over the caller's reference.
  explicit SpAIBinder(AIBinder* binder) : binder_(binder) {}
  SpAIBinder(const SpAIBinder& other) : binder_(other.binder_) { AIBinder_incStrong(binder_); }
  SpAIBinder(SpAIBinder&& other) noexcept : binder_(std::exchange(other.binder_, nullptr)) {}
  ~SpAIBinder() { set(nullptr); }
  SpAIBinder& operator=(SpAIBinder other) {
    std::swap(binder_, other.binder_);
    return *this;
  }

  AIBinder* get() const { return binder_; }
  AIBinder** getR() { return &binder_; }
  void set(AIBinder* binder) {
    AIBinder* old = std::exchange(binder_, binder);
    if (old != nullptr) AIBinder_decStrong(old);
  }

  bool operator==(const SpAIBinder& other) const = default;
  auto operator<=>(const SpAIBinder& other) const = default;

 private:
  AIBinder* binder_ = nullptr;
};

namespace impl {

/// Owns a T, which Delete frees.
template <typename T, void (*Delete)(T*)>
class ScopedResource {
 public:
  ScopedResource() = default;
  explicit ScopedResource(T* resource) : resource_(resource) {}
  ScopedResource(ScopedResource&& other) noexcept
      : resource_(std::exchange(other.resource_, nullptr)) {}
  ScopedResource& operator=(ScopedResource&& other) noexcept {
    if (this != &other) set(std::exchange(other.resource_, nullptr));
    return *this;
  }
  ~ScopedResource() { Delete(resource_); }

  T* get() const { return resource_; }
  T** getR() { return &resource_; }
  void set(T* resource) { Delete(std::exchange(resource_, resource)); }

 private:
  T* resource_ = nullptr;
};

}  // namespace impl

using ScopedAParcel = impl::ScopedResource<AParcel, AParcel_delete>;
using ScopedAIBinder_Weak = impl::ScopedResource<AIBinder_Weak, AIBinder_Weak_delete>;
using ScopedAIBinder_DeathRecipient =
    impl::ScopedResource<AIBinder_DeathRecipient, AIBinder_DeathRecipient_delete>;

/// The outcome of a method. One that was never set is not OK.
class [[nodiscard]] ScopedAStatus : public impl::ScopedResource<AStatus, AStatus_delete> {
 public:
  using impl::ScopedResource<AStatus, AStatus_delete>::ScopedResource;

  bool isOk() const { return get() != nullptr && AStatus_isOk(get()); }
  binder_exception_t getExceptionCode() const { return AStatus_getExceptionCode(get()); }
  int32_t getServiceSpecificError() const { return AStatus_getServiceSpecificError(get()); }
  binder_status_t getStatus() const { return AStatus_getStatus(get()); }
  const char* getMessage() const { return AStatus_getMessage(get()); }
  std::string getDescription() const {
    const char* description = AStatus_getDescription(get());
    std::string text = description;
    AStatus_deleteDescription(description);
    return text;
  }

  static ScopedAStatus ok() { return ScopedAStatus(AStatus_newOk()); }
  static ScopedAStatus fromStatus(binder_status_t status) {
    return ScopedAStatus(AStatus_fromStatus(status));
  }
  static ScopedAStatus fromExceptionCode(binder_exception_t exception) {
    return ScopedAStatus(AStatus_fromExceptionCode(exception));
  }
  static ScopedAStatus fromExceptionCodeWithMessage(binder_exception_t exception,
                                                    const char* message) {
    return ScopedAStatus(AStatus_fromExceptionCodeWithMessage(exception, message));
  }
  static ScopedAStatus fromServiceSpecificError(int32_t error) {
    return ScopedAStatus(AStatus_fromServiceSpecificError(error));
  }
  static ScopedAStatus fromServiceSpecificErrorWithMessage(int32_t error, const char* message) {
    return ScopedAStatus(AStatus_fromServiceSpecificErrorWithMessage(error, message));
  }
};

inline std::ostream& operator<<(std::ostream& out, const ScopedAStatus& status) {
  return out << status.getDescription();
}

}  // namespace ndk
