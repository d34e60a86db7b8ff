// IKvox and its callback: stubs, proxies and what they share.
#include "aidl/kvox/IKvox.h"

#include "aidl/kvox/BnKvox.h"
#include "aidl/kvox/BpKvox.h"
#include "interface/host/marshal.h"

namespace aidl::kvox {
namespace {

using Callback = IKvox::IReceiveAudioCallback;

/// Serves one method of an interface. The methods are in the order of their codes.
template <typename I>
using Server = binder_status_t (*)(I&, const AParcel*, AParcel*);

template <typename I>
struct Methods;

#define KVOX_SERVER(name, parameters, arguments) Marshal<&Interface::name>::Serve,
template <>
struct Methods<IKvox> {
  using Interface = IKvox;
  static constexpr Server<IKvox> kServers[] = {KVOX_METHODS(KVOX_SERVER)};
};
template <>
struct Methods<Callback> {
  using Interface = Callback;
  static constexpr Server<Callback> kServers[] = {KVOX_CALLBACK_METHODS(KVOX_SERVER)};
};
#undef KVOX_SERVER

template <typename I>
binder_status_t OnTransact(AIBinder* binder, transaction_code_t code, const AParcel* in,
                           AParcel* out) {
  const auto object = std::static_pointer_cast<I>(::ndk::ICInterface::asInterface(binder));
  if (code == kVersionTransaction) return Marshal<&I::getInterfaceVersion>::Serve(*object, in, out);
  if (code == kHashTransaction) return Marshal<&I::getInterfaceHash>::Serve(*object, in, out);
  const auto& servers = Methods<I>::kServers;
  const size_t index = code - FIRST_CALL_TRANSACTION;
  return index < std::size(servers) ? servers[index](*object, in, out) : STATUS_UNKNOWN_TRANSACTION;
}

template <typename I>
AIBinder_Class* ClassOf() {
  static auto* const clazz = ::ndk::ICInterface::defineClass(I::descriptor, OnTransact<I>);
  return clazz;
}

/// The implementation behind a local object, a proxy for a remote one, null for another interface.
template <typename I, typename Proxy>
std::shared_ptr<I> InterfaceOf(const ::ndk::SpAIBinder& binder) {
  if (AIBinder_associateClass(binder.get(), ClassOf<I>())) {
    if (auto local = ::ndk::ICInterface::asInterface(binder.get())) {
      return std::static_pointer_cast<I>(local);
    }
    return ::ndk::SharedRefBase::make<Proxy>(binder);
  }
  // Other code of this process may have defined its own class for the interface first.
  const AIBinder_Class* other = AIBinder_getClass(binder.get());
  const bool same =
      other != nullptr && strcmp(AIBinder_Class_getDescriptor(other), I::descriptor) == 0;
  return same ? ::ndk::SharedRefBase::make<Proxy>(binder) : nullptr;
}

/// Calls the method unless an earlier call has succeeded; `cache` holds its result.
template <auto method, typename T>
::ndk::ScopedAStatus CallOnce(AIBinder* binder, transaction_code_t code, std::mutex& mutex,
                              std::optional<T>& cache, T* result) {
  {
    const std::lock_guard<std::mutex> lock(mutex);
    if (cache) {
      *result = *cache;
      return ::ndk::ScopedAStatus::ok();
    }
  }
  auto status = typename Marshal<method>::Client{binder, code}(result);
  const std::lock_guard<std::mutex> lock(mutex);
  if (status.isOk()) cache = *result;
  return status;
}

}  // namespace

std::shared_ptr<IKvox> IKvox::fromBinder(const ::ndk::SpAIBinder& binder) {
  return InterfaceOf<IKvox, BpKvox>(binder);
}
std::shared_ptr<Callback> Callback::fromBinder(const ::ndk::SpAIBinder& binder) {
  return InterfaceOf<Callback, IKvox::BpReceiveAudioCallback>(binder);
}

template <typename I>
::ndk::SpAIBinder StubBase<I>::createBinder() {
  return ::ndk::SpAIBinder(
      AIBinder_new(ClassOf<I>(), static_cast<void*>(static_cast<::ndk::ICInterface*>(this))));
}
template <typename I>
::ndk::ScopedAStatus StubBase<I>::getInterfaceVersion(int32_t* _aidl_return) {
  *_aidl_return = I::version;
  return ::ndk::ScopedAStatus::ok();
}
template <typename I>
::ndk::ScopedAStatus StubBase<I>::getInterfaceHash(std::string* _aidl_return) {
  *_aidl_return = I::hash;
  return ::ndk::ScopedAStatus::ok();
}
template <typename I>
::ndk::ScopedAStatus ProxyBase<I>::getInterfaceVersion(int32_t* _aidl_return) {
  return CallOnce<&I::getInterfaceVersion>(this->asBinderReference().get(), kVersionTransaction,
                                           _cache_mutex, _cached_version, _aidl_return);
}
template <typename I>
::ndk::ScopedAStatus ProxyBase<I>::getInterfaceHash(std::string* _aidl_return) {
  return CallOnce<&I::getInterfaceHash>(this->asBinderReference().get(), kHashTransaction,
                                        _cache_mutex, _cached_hash, _aidl_return);
}

template class StubBase<IKvox>;
template class StubBase<Callback>;
template class ProxyBase<IKvox>;
template class ProxyBase<Callback>;

#define KVOX_CALL(name, parameters, arguments)                                                     \
  ::ndk::ScopedAStatus BpKvox::name parameters {                                                   \
    return Marshal<&IKvox::name>::Client{asBinderReference().get(), TRANSACTION_##name} arguments; \
  }
KVOX_METHODS(KVOX_CALL)
#undef KVOX_CALL

#define KVOX_CALL(name, parameters, arguments)                             \
  ::ndk::ScopedAStatus IKvox::BpReceiveAudioCallback::name parameters {    \
    return Marshal<&Callback::name>::Client{asBinderReference().get(),     \
                                            TRANSACTION_##name} arguments; \
  }
KVOX_CALLBACK_METHODS(KVOX_CALL)
#undef KVOX_CALL

}  // namespace aidl::kvox
