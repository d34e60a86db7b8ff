#include "platform/linux/call_table.h"

#include <algorithm>

namespace kvox::binder {

void WaitingCall::Finish(binder_status_t status, std::unique_ptr<AParcel> reply) {
  MutexLock lock(mutex_);
  status_ = status;
  reply_ = std::move(reply);
  done_ = true;
  finished_.NotifyOne();  // under the lock: the waiter may be gone right after it
}

binder_status_t WaitingCall::Wait(std::unique_ptr<AParcel>* reply) {
  MutexLock lock(mutex_);
  while (!done_) finished_.Wait(mutex_);
  if (status_ == STATUS_OK) *reply = std::move(reply_);
  return status_;
}

bool WaitingCall::WaitUntil(std::chrono::steady_clock::time_point deadline) {
  MutexLock lock(mutex_);
  while (!done_) {
    if (!finished_.WaitUntil(mutex_, deadline)) return done_;
  }
  return true;
}

uint64_t CallTable::Add(WaitingCall* call) {
  MutexLock lock(mutex_);
  calls_.emplace_back(++last_number_, call);
  return last_number_;
}

bool CallTable::Remove(uint64_t number) {
  MutexLock lock(mutex_);
  if (RemoveLocked(number) == nullptr) return false;
  given_up_.push_back(number);
  return true;
}

WaitingCall* CallTable::RemoveLocked(uint64_t number) {
  const auto found = std::ranges::find(calls_, number, &Calls::value_type::first);
  if (found == calls_.end()) return nullptr;
  WaitingCall* call = found->second;
  *found = calls_.back();
  calls_.pop_back();
  return call;
}

bool CallTable::Finish(uint64_t number, binder_status_t status, std::unique_ptr<AParcel> reply,
                       std::unique_ptr<AParcel>* stray) {
  WaitingCall* call = nullptr;
  {
    MutexLock lock(mutex_);
    call = RemoveLocked(number);
    if (call == nullptr) {
      *stray = std::move(reply);
      return std::erase(given_up_, number) > 0;
    }
  }
  call->Finish(status, std::move(reply));
  return true;
}

void CallTable::FinishAll(binder_status_t status) {
  Calls calls;
  {
    MutexLock lock(mutex_);
    calls.swap(calls_);
  }
  for (const auto& [number, call] : calls) call->Finish(status, nullptr);
}

bool CallTable::empty() const {
  MutexLock lock(mutex_);
  return calls_.empty();
}

}  // namespace kvox::binder
