#include "platform/linux/binder_object.h"

// Only a thread that holds a reference adds one, so adding needs no order.
void AIBinder::IncStrong() {
  strong_.fetch_add(1, std::memory_order_relaxed);
}
void AIBinder::IncWeak() {
  weak_.fetch_add(1, std::memory_order_relaxed);
}

// Release for the last use of each holder, acquire for the one that ends the object: pairs with
// itself.
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
    // Relaxed as in IncStrong: the caller got the object's address in an ordered way.
    if (strong_.compare_exchange_weak(count, count + 1, std::memory_order_relaxed)) return true;
  }
  return false;
}

// A class is older than any object and never changes: only the pointer is shared.
const AIBinder_Class* AIBinder::clazz() const {
  return clazz_.load(std::memory_order_relaxed);
}
const AIBinder_Class* AIBinder::SetClass(const AIBinder_Class* clazz) {
  const AIBinder_Class* present = nullptr;
  clazz_.compare_exchange_strong(present, clazz, std::memory_order_relaxed);
  return present == nullptr ? clazz : present;
}

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

void AIBinder_incStrong(AIBinder* binder) {
  if (binder != nullptr) binder->IncStrong();
}
void AIBinder_decStrong(AIBinder* binder) {
  if (binder != nullptr) binder->DecStrong();
}

// A weak reference is the object itself, which counts it.
AIBinder_Weak* AIBinder_Weak_new(AIBinder* binder) {
  if (binder != nullptr) binder->IncWeak();
  return reinterpret_cast<AIBinder_Weak*>(binder);
}
void AIBinder_Weak_delete(AIBinder_Weak* weak) {
  if (weak != nullptr) reinterpret_cast<AIBinder*>(weak)->DecWeak();
}
AIBinder* AIBinder_Weak_promote(AIBinder_Weak* weak) {
  auto* binder = reinterpret_cast<AIBinder*>(weak);
  return binder != nullptr && binder->TryIncStrong() ? binder : nullptr;
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
