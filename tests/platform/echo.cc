#include "tests/platform/echo.h"

#include <cstring>

namespace aidl::kvoxtest {
namespace {

using ::ndk::AParcel_readData;
using ::ndk::AParcel_writeData;
using ::ndk::ScopedAStatus;

template <typename In, typename Out>
binder_status_t Answer(BnEcho& echo, ScopedAStatus (IEcho::*method)(const In&, Out*),
                       const AParcel* in, AParcel* out) {
  In argument{};
  Out answer{};
  binder_status_t result = AParcel_readData(in, &argument);
  if (result != STATUS_OK) return result;
  const ScopedAStatus status = (echo.*method)(argument, &answer);
  result = AParcel_writeStatusHeader(out, status.get());
  if (result != STATUS_OK || !AStatus_isOk(status.get())) return result;
  return AParcel_writeData(out, answer);
}

binder_status_t OnTransact(AIBinder* binder, transaction_code_t code, const AParcel* in,
                           AParcel* out) {
  const auto echo = std::static_pointer_cast<BnEcho>(::ndk::ICInterface::asInterface(binder));
  int32_t number = 0;
  switch (code) {
    case IEcho::TRANSACTION_Echo:
      return Answer(*echo, &IEcho::Echo, in, out);
    case IEcho::TRANSACTION_Swap:
      return Answer(*echo, &IEcho::Swap, in, out);
    case IEcho::TRANSACTION_Note:
      if (const auto result = AParcel_readData(in, &number); result != STATUS_OK) return result;
      static_cast<void>(echo->Note(number));
      return STATUS_OK;
  }
  return STATUS_UNKNOWN_TRANSACTION;
}

const char* g_functions[] = {"Echo", "Swap", "Note"};
AIBinder_Class* const g_class =
    ::ndk::ICInterface::defineClass(IEcho::descriptor, OnTransact, g_functions, 3);

/// A call with one argument; one-way when `answer` is null.
template <typename In, typename Out>
ScopedAStatus Call(AIBinder* binder, transaction_code_t code, const In& argument, Out* answer) {
  ::ndk::ScopedAParcel in;
  ::ndk::ScopedAParcel out;
  const binder_flags_t flags = answer == nullptr ? FLAG_ONEWAY : 0;
  binder_status_t result = AIBinder_prepareTransaction(binder, in.getR());
  if (result == STATUS_OK) result = AParcel_writeData(in.get(), argument);
  if (result == STATUS_OK) result = AIBinder_transact(binder, code, in.getR(), out.getR(), flags);
  if (result == STATUS_OK && answer != nullptr) {
    ScopedAStatus status;
    result = AParcel_readStatusHeader(out.get(), status.getR());
    if (result == STATUS_OK && !status.isOk()) return status;
    if (result == STATUS_OK) result = AParcel_readData(out.get(), answer);
  }
  return ScopedAStatus(AStatus_fromStatus(result));
}

}  // namespace

ScopedAStatus BpEcho::Echo(const std::vector<uint8_t>& data, std::vector<uint8_t>* answer) {
  return Call(asBinderReference().get(), TRANSACTION_Echo, data, answer);
}
ScopedAStatus BpEcho::Swap(const std::shared_ptr<IEcho>& object, std::shared_ptr<IEcho>* before) {
  return Call(asBinderReference().get(), TRANSACTION_Swap, object, before);
}
ScopedAStatus BpEcho::Note(int32_t number) {
  int32_t* const no_answer = nullptr;
  return Call(asBinderReference().get(), TRANSACTION_Note, number, no_answer);
}

::ndk::SpAIBinder BnEcho::createBinder() {
  return ::ndk::SpAIBinder(AIBinder_new(g_class, static_cast<void*>(this)));
}

std::shared_ptr<IEcho> IEcho::fromBinder(const ::ndk::SpAIBinder& binder) {
  if (!AIBinder_associateClass(binder.get(), g_class)) {
    const AIBinder_Class* const original = AIBinder_getClass(binder.get());
    if (original == nullptr) return nullptr;
    const bool same = std::strcmp(AIBinder_Class_getDescriptor(original), descriptor) == 0;
    return same ? ::ndk::SharedRefBase::make<BpEcho>(binder) : nullptr;
  }
  const auto interface = ::ndk::ICInterface::asInterface(binder.get());
  if (interface) return std::static_pointer_cast<IEcho>(interface);
  return ::ndk::SharedRefBase::make<BpEcho>(binder);
}

}  // namespace aidl::kvoxtest
