#include "tests/platform/echo.h"

#include <cstring>

namespace aidl::kvoxtest {

static binder_status_t _aidl_kvoxtest_IEcho_onTransact(AIBinder* _aidl_binder,
                                                       transaction_code_t _aidl_code,
                                                       const AParcel* _aidl_in,
                                                       AParcel* _aidl_out) {
  binder_status_t _aidl_ret_status = STATUS_UNKNOWN_TRANSACTION;
  std::shared_ptr<BnEcho> _aidl_impl =
      std::static_pointer_cast<BnEcho>(::ndk::ICInterface::asInterface(_aidl_binder));
  switch (_aidl_code) {
    case IEcho::TRANSACTION_Echo: {
      std::vector<uint8_t> in_data{};
      std::vector<uint8_t> _aidl_return{};

      _aidl_ret_status = ::ndk::AParcel_readData(_aidl_in, &in_data);
      if (_aidl_ret_status != STATUS_OK) break;
      ::ndk::ScopedAStatus _aidl_status = _aidl_impl->Echo(in_data, &_aidl_return);
      _aidl_ret_status = AParcel_writeStatusHeader(_aidl_out, _aidl_status.get());
      if (_aidl_ret_status != STATUS_OK) break;
      if (!AStatus_isOk(_aidl_status.get())) break;
      _aidl_ret_status = ::ndk::AParcel_writeData(_aidl_out, _aidl_return);
      if (_aidl_ret_status != STATUS_OK) break;
      break;
    }
    case IEcho::TRANSACTION_Swap: {
      std::shared_ptr<IEcho> in_object{};
      std::shared_ptr<IEcho> _aidl_return{};

      _aidl_ret_status = ::ndk::AParcel_readData(_aidl_in, &in_object);
      if (_aidl_ret_status != STATUS_OK) break;
      ::ndk::ScopedAStatus _aidl_status = _aidl_impl->Swap(in_object, &_aidl_return);
      _aidl_ret_status = AParcel_writeStatusHeader(_aidl_out, _aidl_status.get());
      if (_aidl_ret_status != STATUS_OK) break;
      if (!AStatus_isOk(_aidl_status.get())) break;
      _aidl_ret_status = ::ndk::AParcel_writeData(_aidl_out, _aidl_return);
      if (_aidl_ret_status != STATUS_OK) break;
      break;
    }
    case IEcho::TRANSACTION_Note: {
      int32_t in_number{};

      _aidl_ret_status = ::ndk::AParcel_readData(_aidl_in, &in_number);
      if (_aidl_ret_status != STATUS_OK) break;
      ::ndk::ScopedAStatus _aidl_status = _aidl_impl->Note(in_number);
      break;
    }
  }
  return _aidl_ret_status;
}

static const char* _g_aidl_kvoxtest_IEcho_functions[] = {"Echo", "Swap", "Note"};
static AIBinder_Class* _g_aidl_kvoxtest_IEcho_clazz = ::ndk::ICInterface::defineClass(
    "kvoxtest.IEcho", _aidl_kvoxtest_IEcho_onTransact, _g_aidl_kvoxtest_IEcho_functions, 3);

BpEcho::BpEcho(const ::ndk::SpAIBinder& binder) : BpCInterface(binder) {}
BpEcho::~BpEcho() {}

::ndk::ScopedAStatus BpEcho::Echo(const std::vector<uint8_t>& in_data,
                                  std::vector<uint8_t>* _aidl_return) {
  binder_status_t _aidl_ret_status = STATUS_OK;
  ::ndk::ScopedAStatus _aidl_status;
  ::ndk::ScopedAParcel _aidl_in;
  ::ndk::ScopedAParcel _aidl_out;

  _aidl_ret_status = AIBinder_prepareTransaction(asBinderReference().get(), _aidl_in.getR());
  if (_aidl_ret_status != STATUS_OK) goto _aidl_error;

  _aidl_ret_status = ::ndk::AParcel_writeData(_aidl_in.get(), in_data);
  if (_aidl_ret_status != STATUS_OK) goto _aidl_error;

  _aidl_ret_status = AIBinder_transact(asBinderReference().get(), TRANSACTION_Echo, _aidl_in.getR(),
                                       _aidl_out.getR(), 0);
  if (_aidl_ret_status != STATUS_OK) goto _aidl_error;

  _aidl_ret_status = AParcel_readStatusHeader(_aidl_out.get(), _aidl_status.getR());
  if (_aidl_ret_status != STATUS_OK) goto _aidl_error;
  if (!AStatus_isOk(_aidl_status.get())) goto _aidl_status_return;
  _aidl_ret_status = ::ndk::AParcel_readData(_aidl_out.get(), _aidl_return);
  if (_aidl_ret_status != STATUS_OK) goto _aidl_error;

_aidl_error:
  _aidl_status.set(AStatus_fromStatus(_aidl_ret_status));
_aidl_status_return:
  return _aidl_status;
}

::ndk::ScopedAStatus BpEcho::Swap(const std::shared_ptr<IEcho>& in_object,
                                  std::shared_ptr<IEcho>* _aidl_return) {
  binder_status_t _aidl_ret_status = STATUS_OK;
  ::ndk::ScopedAStatus _aidl_status;
  ::ndk::ScopedAParcel _aidl_in;
  ::ndk::ScopedAParcel _aidl_out;

  _aidl_ret_status = AIBinder_prepareTransaction(asBinderReference().get(), _aidl_in.getR());
  if (_aidl_ret_status != STATUS_OK) goto _aidl_error;

  _aidl_ret_status = ::ndk::AParcel_writeData(_aidl_in.get(), in_object);
  if (_aidl_ret_status != STATUS_OK) goto _aidl_error;

  _aidl_ret_status = AIBinder_transact(asBinderReference().get(), TRANSACTION_Swap, _aidl_in.getR(),
                                       _aidl_out.getR(), 0);
  if (_aidl_ret_status != STATUS_OK) goto _aidl_error;

  _aidl_ret_status = AParcel_readStatusHeader(_aidl_out.get(), _aidl_status.getR());
  if (_aidl_ret_status != STATUS_OK) goto _aidl_error;
  if (!AStatus_isOk(_aidl_status.get())) goto _aidl_status_return;
  _aidl_ret_status = ::ndk::AParcel_readData(_aidl_out.get(), _aidl_return);
  if (_aidl_ret_status != STATUS_OK) goto _aidl_error;

_aidl_error:
  _aidl_status.set(AStatus_fromStatus(_aidl_ret_status));
_aidl_status_return:
  return _aidl_status;
}

::ndk::ScopedAStatus BpEcho::Note(int32_t in_number) {
  binder_status_t _aidl_ret_status = STATUS_OK;
  ::ndk::ScopedAStatus _aidl_status;
  ::ndk::ScopedAParcel _aidl_in;
  ::ndk::ScopedAParcel _aidl_out;

  _aidl_ret_status = AIBinder_prepareTransaction(asBinderReference().get(), _aidl_in.getR());
  if (_aidl_ret_status != STATUS_OK) goto _aidl_error;

  _aidl_ret_status = ::ndk::AParcel_writeData(_aidl_in.get(), in_number);
  if (_aidl_ret_status != STATUS_OK) goto _aidl_error;

  _aidl_ret_status = AIBinder_transact(asBinderReference().get(), TRANSACTION_Note, _aidl_in.getR(),
                                       _aidl_out.getR(), FLAG_ONEWAY);
  if (_aidl_ret_status != STATUS_OK) goto _aidl_error;

_aidl_error:
  _aidl_status.set(AStatus_fromStatus(_aidl_ret_status));
  return _aidl_status;
}

BnEcho::BnEcho() {}
BnEcho::~BnEcho() {}
::ndk::SpAIBinder BnEcho::createBinder() {
  AIBinder* binder = AIBinder_new(_g_aidl_kvoxtest_IEcho_clazz, static_cast<void*>(this));
  return ::ndk::SpAIBinder(binder);
}

const char* IEcho::descriptor = "kvoxtest.IEcho";
IEcho::IEcho() {}
IEcho::~IEcho() {}

std::shared_ptr<IEcho> IEcho::fromBinder(const ::ndk::SpAIBinder& binder) {
  if (!AIBinder_associateClass(binder.get(), _g_aidl_kvoxtest_IEcho_clazz)) {
    const AIBinder_Class* originalClass = AIBinder_getClass(binder.get());
    if (originalClass == nullptr) return nullptr;
    if (0 == strcmp(AIBinder_Class_getDescriptor(originalClass), IEcho::descriptor)) {
      return ::ndk::SharedRefBase::make<BpEcho>(binder);
    }
    return nullptr;
  }
  std::shared_ptr<::ndk::ICInterface> interface = ::ndk::ICInterface::asInterface(binder.get());
  if (interface) {
    return std::static_pointer_cast<IEcho>(interface);
  }
  return ::ndk::SharedRefBase::make<BpEcho>(binder);
}

}  // namespace aidl::kvoxtest
