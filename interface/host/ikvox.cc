// IKvox and its callback: stubs, proxies and what they share.
#include "aidl/kvox/IKvox.h"

#include "aidl/kvox/BnKvox.h"
#include "aidl/kvox/BpKvox.h"
#include "interface/host/marshal.h"

namespace aidl::kvox {
namespace {

using Callback = IKvox::IReceiveAudioCallback;

constexpr Server<IKvox> kMethods[] = {
#define KVOX_SERVER(name, parameters, arguments) Marshal<&IKvox::name>::Serve,
    KVOX_METHODS(KVOX_SERVER)
#undef KVOX_SERVER
};
constexpr Server<Callback> kCallbackMethods[] = {
#define KVOX_SERVER(name, parameters, arguments) Marshal<&Callback::name>::Serve,
    KVOX_CALLBACK_METHODS(KVOX_SERVER)
#undef KVOX_SERVER
};

binder_status_t OnTransact(AIBinder* binder, transaction_code_t code, const AParcel* in,
                           AParcel* out) {
  return Dispatch(kMethods, binder, code, in, out);
}
binder_status_t OnCallbackTransact(AIBinder* binder, transaction_code_t code, const AParcel* in,
                                   AParcel* out) {
  return Dispatch(kCallbackMethods, binder, code, in, out);
}

AIBinder_Class* Class() {
  static auto* const clazz = ::ndk::ICInterface::defineClass(IKvox::descriptor, OnTransact);
  return clazz;
}
AIBinder_Class* CallbackClass() {
  static auto* const clazz =
      ::ndk::ICInterface::defineClass(Callback::descriptor, OnCallbackTransact);
  return clazz;
}

}  // namespace

const char* IKvox::descriptor = "kvox.IKvox";
const char* IKvox::IReceiveAudioCallback::descriptor = "kvox.IKvox.IReceiveAudioCallback";
const std::string IKvox::hash = "6b766f78640000000000000000000000494b0003";
const std::string IKvox::IReceiveAudioCallback::hash = IKvox::hash;

IKvox::~IKvox() = default;
BnKvox::~BnKvox() = default;
BpKvox::~BpKvox() = default;
IKvox::IReceiveAudioCallback::~IReceiveAudioCallback() = default;
IKvox::BnReceiveAudioCallback::~BnReceiveAudioCallback() = default;
IKvox::BpReceiveAudioCallback::~BpReceiveAudioCallback() = default;

std::shared_ptr<IKvox> IKvox::fromBinder(const ::ndk::SpAIBinder& binder) {
  return InterfaceOf<IKvox, BpKvox>(binder, Class());
}
std::shared_ptr<Callback> Callback::fromBinder(const ::ndk::SpAIBinder& binder) {
  return InterfaceOf<Callback, BpReceiveAudioCallback>(binder, CallbackClass());
}

::ndk::SpAIBinder BnKvox::createBinder() {
  return ::ndk::SpAIBinder(AIBinder_new(Class(), static_cast<void*>(this)));
}
::ndk::SpAIBinder IKvox::BnReceiveAudioCallback::createBinder() {
  return ::ndk::SpAIBinder(AIBinder_new(CallbackClass(), static_cast<void*>(this)));
}

#define KVOX_CALL(name, parameters, arguments)                                          \
  ::ndk::ScopedAStatus BpKvox::name parameters {                                        \
    const auto call = [this](auto&&... argument) {                                      \
      return Marshal<&IKvox::name>::Call(asBinderReference().get(), TRANSACTION_##name, \
                                         argument...);                                  \
    };                                                                                  \
    return call arguments;                                                              \
  }
KVOX_METHODS(KVOX_CALL)
#undef KVOX_CALL

#define KVOX_CALL(name, parameters, arguments)                                             \
  ::ndk::ScopedAStatus IKvox::BpReceiveAudioCallback::name parameters {                    \
    const auto call = [this](auto&&... argument) {                                         \
      return Marshal<&Callback::name>::Call(asBinderReference().get(), TRANSACTION_##name, \
                                            argument...);                                  \
    };                                                                                     \
    return call arguments;                                                                 \
  }
KVOX_CALLBACK_METHODS(KVOX_CALL)
#undef KVOX_CALL

#define KVOX_INTERFACE_FACTS(I, Stub, Proxy)                                                 \
  ::ndk::ScopedAStatus Stub::getInterfaceVersion(int32_t* _aidl_return) {                    \
    *_aidl_return = I::version;                                                              \
    return ::ndk::ScopedAStatus::ok();                                                       \
  }                                                                                          \
  ::ndk::ScopedAStatus Stub::getInterfaceHash(std::string* _aidl_return) {                   \
    *_aidl_return = I::hash;                                                                 \
    return ::ndk::ScopedAStatus::ok();                                                       \
  }                                                                                          \
  ::ndk::ScopedAStatus Proxy::getInterfaceVersion(int32_t* _aidl_return) {                   \
    return CallOnce<&I::getInterfaceVersion>(asBinderReference().get(), kVersionTransaction, \
                                             _cache_mutex, _cached_version, _aidl_return);   \
  }                                                                                          \
  ::ndk::ScopedAStatus Proxy::getInterfaceHash(std::string* _aidl_return) {                  \
    return CallOnce<&I::getInterfaceHash>(asBinderReference().get(), kHashTransaction,       \
                                          _cache_mutex, _cached_hash, _aidl_return);         \
  }

KVOX_INTERFACE_FACTS(IKvox, BnKvox, BpKvox)
KVOX_INTERFACE_FACTS(Callback, IKvox::BnReceiveAudioCallback, IKvox::BpReceiveAudioCallback)

}  // namespace aidl::kvox
