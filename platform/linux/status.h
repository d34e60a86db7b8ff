// The outcome of a method, and its encoding at the start of a reply.
#pragma once

#include <android/binder_status.h>

#include <string>

struct AStatus {
  binder_exception_t exception = EX_NONE;
  int32_t code = 0;  // the service's own error, or the status behind EX_TRANSACTION_FAILED
  std::string message;
};

namespace kvox::binder {

/// The status, or STATUS_UNKNOWN_ERROR for an invalid number.
binder_status_t KnownStatus(binder_status_t status);

}  // namespace kvox::binder
