#include "platform/linux/local_object.h"

#include <utility>

#include "platform/linux/parcel.h"
#include "platform/linux/status.h"

namespace kvox::binder {
namespace {

/// Calls that the library serves for every object.
constexpr transaction_code_t kPingTransaction = 0x5f504e47;        // "_PNG"
constexpr transaction_code_t kDescriptorTransaction = 0x5f4e5446;  // "_NTF"
constexpr transaction_code_t kDumpTransaction = 0x5f444d50;        // "_DMP"

bool IsInterfaceCall(transaction_code_t code) {
  return code >= FIRST_CALL_TRANSACTION && code <= LAST_CALL_TRANSACTION;
}

}  // namespace

LocalObject::LocalObject(const AIBinder_Class* clazz, void* args)
    : AIBinder(clazz), user_data_(clazz->on_create(args)) {}

void LocalObject::OnLastStrong() {
  clazz()->on_destroy(user_data_);
}

bool LocalObject::AssociateClass(const AIBinder_Class* other) {
  return other == clazz();
}

binder_status_t LocalObject::Handle(transaction_code_t code, const AParcel& in, AParcel& out) {
  const AIBinder_Class& own = *clazz();
  if (code == kPingTransaction) return STATUS_OK;
  if (code == kDescriptorTransaction) return WriteInterfaceToken(out, own.descriptor.c_str());
  if (code == kDumpTransaction) return STATUS_FDS_NOT_ALLOWED;
  if (!IsInterfaceCall(code)) return STATUS_UNKNOWN_TRANSACTION;
  const binder_status_t status = CheckInterfaceToken(in, own.descriptor.c_str());
  if (status != STATUS_OK) return status;
  return KnownStatus(own.on_transact(this, code, &in, &out));
}

binder_status_t LocalObject::Transact(transaction_code_t code, AParcel& in, binder_flags_t flags,
                                      std::unique_ptr<AParcel>* out) {
  auto reply = std::make_unique<AParcel>();
  in.set_position(0);
  const binder_status_t status = Handle(code, in, *reply);
  if ((flags & FLAG_ONEWAY) != 0) {
    reply = std::make_unique<AParcel>();
  } else if (status != STATUS_OK) {
    return status;
  }
  reply->set_position(0);
  *out = std::move(reply);
  return STATUS_OK;
}

}  // namespace kvox::binder

AIBinder* AIBinder_new(const AIBinder_Class* clazz, void* args) {
  return clazz == nullptr ? nullptr : new kvox::binder::LocalObject(clazz, args);
}
void* AIBinder_getUserData(AIBinder* binder) {
  if (binder == nullptr || AIBinder_isRemote(binder)) return nullptr;
  return static_cast<kvox::binder::LocalObject*>(binder)->user_data();
}

binder_status_t AIBinder_ping(AIBinder* binder) {
  if (binder == nullptr) return STATUS_UNEXPECTED_NULL;
  AParcel in;
  std::unique_ptr<AParcel> out;
  return binder->Transact(kvox::binder::kPingTransaction, in, 0, &out);
}

binder_status_t AIBinder_dump(AIBinder* binder, int fd, const char** args, uint32_t numArgs) {
  if (binder == nullptr) return STATUS_UNEXPECTED_NULL;
  if (AIBinder_isRemote(binder)) return STATUS_FDS_NOT_ALLOWED;
  const AIBinder_onDump on_dump = binder->clazz()->on_dump;
  return on_dump == nullptr ? STATUS_OK : on_dump(binder, fd, args, numArgs);
}

binder_status_t AIBinder_prepareTransaction(AIBinder* binder, AParcel** in) {
  if (binder == nullptr || in == nullptr) return STATUS_UNEXPECTED_NULL;
  const AIBinder_Class* clazz = binder->clazz();
  if (clazz == nullptr) return STATUS_INVALID_OPERATION;
  auto parcel = std::make_unique<AParcel>(binder);
  const auto status = kvox::binder::WriteInterfaceToken(*parcel, clazz->descriptor.c_str());
  if (status == STATUS_OK) *in = parcel.release();
  return status;
}

binder_status_t AIBinder_transact(AIBinder* binder, transaction_code_t code, AParcel** in,
                                  AParcel** out, binder_flags_t flags) {
  if (in == nullptr) return STATUS_UNEXPECTED_NULL;
  const std::unique_ptr<AParcel> request(std::exchange(*in, nullptr));
  if (request == nullptr || binder == nullptr || out == nullptr) return STATUS_UNEXPECTED_NULL;
  if (!kvox::binder::IsInterfaceCall(code)) return STATUS_UNKNOWN_TRANSACTION;
  if ((flags & ~binder_flags_t{FLAG_ONEWAY}) != 0) return STATUS_BAD_VALUE;
  if (request->target() != binder) return STATUS_BAD_VALUE;
  std::unique_ptr<AParcel> reply;
  const binder_status_t status = binder->Transact(code, *request, flags, &reply);
  if (status == STATUS_OK) *out = reply.release();
  return status;
}
