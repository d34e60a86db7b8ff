#include "platform/linux/binder_object.h"

#include <unistd.h>

#include <utility>

#include "platform/linux/parcel.h"
#include "platform/linux/remote_object.h"
#include "platform/linux/status.h"

struct AIBinder_Weak {
  AIBinder* const binder;
};

// A count is only raised by someone who already holds a reference, so raising needs no order.
void AIBinder::IncStrong() {
  strong_.fetch_add(1, std::memory_order_relaxed);
}
void AIBinder::IncWeak() {
  weak_.fetch_add(1, std::memory_order_relaxed);
}

// Release for each holder's last use, acquire for the one who ends the object: pairs with itself.
void AIBinder::DecStrong() {
  if (strong_.fetch_sub(1, std::memory_order_acq_rel) != 1) return;
  OnLastStrong();
  DecWeak();
}
void AIBinder::DecWeak() {
  if (weak_.fetch_sub(1, std::memory_order_acq_rel) == 1) delete this;
}

bool AIBinder::TryIncStrong() {
  int32_t count = strong_.load(std::memory_order_relaxed);
  while (count > 0) {
    // Relaxed as in IncStrong: whoever asks got the object's address in an ordered way.
    if (strong_.compare_exchange_weak(count, count + 1, std::memory_order_relaxed)) return true;
  }
  return false;
}

// The class itself is older than any object and never changes: only the pointer is shared.
const AIBinder_Class* AIBinder::clazz() const {
  return clazz_.load(std::memory_order_relaxed);
}
const AIBinder_Class* AIBinder::SetClass(const AIBinder_Class* clazz) {
  const AIBinder_Class* present = nullptr;
  clazz_.compare_exchange_strong(present, clazz, std::memory_order_relaxed);
  return present == nullptr ? clazz : present;
}

namespace kvox::binder {
namespace {

thread_local const Caller* caller_of_thread = nullptr;

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

ScopedCaller::ScopedCaller(const Caller& caller)
    : previous_(std::exchange(caller_of_thread, &caller)) {}
ScopedCaller::~ScopedCaller() {
  caller_of_thread = previous_;
}

}  // namespace kvox::binder

AIBinder_Class* AIBinder_Class_define(const char* interfaceDescriptor,
                                      AIBinder_Class_onCreate onCreate,
                                      AIBinder_Class_onDestroy onDestroy,
                                      AIBinder_Class_onTransact onTransact) {
  if (interfaceDescriptor == nullptr || onCreate == nullptr || onDestroy == nullptr ||
      onTransact == nullptr) {
    return nullptr;
  }
  return new AIBinder_Class{interfaceDescriptor, onCreate, onDestroy, onTransact};
}
void AIBinder_Class_setOnDump(AIBinder_Class* clazz, AIBinder_onDump onDump) {
  clazz->on_dump = onDump;
}
void AIBinder_Class_setHandleShellCommand(AIBinder_Class*, AIBinder_handleShellCommand) {}
void AIBinder_Class_setTransactionCodeToFunctionNameMap(AIBinder_Class*, const char**, size_t) {}
const char* AIBinder_Class_getDescriptor(const AIBinder_Class* clazz) {
  return clazz->descriptor.c_str();
}

AIBinder* AIBinder_new(const AIBinder_Class* clazz, void* args) {
  return clazz == nullptr ? nullptr : new kvox::binder::LocalObject(clazz, args);
}
void AIBinder_incStrong(AIBinder* binder) {
  if (binder != nullptr) binder->IncStrong();
}
void AIBinder_decStrong(AIBinder* binder) {
  if (binder != nullptr) binder->DecStrong();
}

AIBinder_Weak* AIBinder_Weak_new(AIBinder* binder) {
  if (binder == nullptr) return nullptr;
  binder->IncWeak();
  return new AIBinder_Weak{binder};
}
void AIBinder_Weak_delete(AIBinder_Weak* weak) {
  if (weak == nullptr) return;
  weak->binder->DecWeak();
  delete weak;
}
AIBinder* AIBinder_Weak_promote(AIBinder_Weak* weak) {
  return weak != nullptr && weak->binder->TryIncStrong() ? weak->binder : nullptr;
}

bool AIBinder_associateClass(AIBinder* binder, const AIBinder_Class* clazz) {
  return binder != nullptr && clazz != nullptr && binder->AssociateClass(clazz);
}
const AIBinder_Class* AIBinder_getClass(AIBinder* binder) {
  return binder == nullptr ? nullptr : binder->clazz();
}
bool AIBinder_isRemote(const AIBinder* binder) {
  return binder != nullptr && const_cast<AIBinder*>(binder)->AsRemote() != nullptr;
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

uid_t AIBinder_getCallingUid() {
  const auto* caller = kvox::binder::caller_of_thread;
  return caller == nullptr ? getuid() : caller->uid;
}
pid_t AIBinder_getCallingPid() {
  const auto* caller = kvox::binder::caller_of_thread;
  return caller == nullptr ? getpid() : caller->pid;
}
