// Status and exception codes of the binder NDK.
#pragma once

#include <stdbool.h>
#include <stdint.h>

#ifndef __ANDROID_API__
#define __ANDROID_API__ 10000
#endif
#ifndef __INTRODUCED_IN
#define __INTRODUCED_IN(api)
#endif

/// The outcome of a library call or a transaction. Callers see any other value as
/// STATUS_UNKNOWN_ERROR.
enum {
  STATUS_OK = 0,
  STATUS_PERMISSION_DENIED = -1,
  STATUS_NAME_NOT_FOUND = -2,
  STATUS_WOULD_BLOCK = -11,
  STATUS_NO_MEMORY = -12,
  STATUS_ALREADY_EXISTS = -17,
  STATUS_NO_INIT = -19,
  STATUS_BAD_VALUE = -22,
  STATUS_DEAD_OBJECT = -32,
  STATUS_INVALID_OPERATION = -38,
  STATUS_NOT_ENOUGH_DATA = -61,
  STATUS_UNKNOWN_TRANSACTION = -74,
  STATUS_BAD_INDEX = -75,
  STATUS_TIMED_OUT = -110,
  STATUS_UNKNOWN_ERROR = INT32_MIN,
  STATUS_BAD_TYPE = INT32_MIN + 1,
  STATUS_FAILED_TRANSACTION = INT32_MIN + 2,
  STATUS_FDS_NOT_ALLOWED = INT32_MIN + 7,
  STATUS_UNEXPECTED_NULL = INT32_MIN + 8,
};
typedef int32_t binder_status_t;

/// The outcome of a method. Callers see any other value as EX_TRANSACTION_FAILED.
enum {
  EX_NONE = 0,
  EX_SECURITY = -1,
  EX_BAD_PARCELABLE = -2,
  EX_ILLEGAL_ARGUMENT = -3,
  EX_NULL_POINTER = -4,
  EX_ILLEGAL_STATE = -5,
  EX_NETWORK_MAIN_THREAD = -6,
  EX_UNSUPPORTED_OPERATION = -7,
  EX_SERVICE_SPECIFIC = -8,
  EX_PARCELABLE = -9,
  EX_TRANSACTION_FAILED = -129,
};
typedef int32_t binder_exception_t;

struct AStatus;
typedef struct AStatus AStatus;

extern "C" {

/// One shared object. All others belong to the caller, until AStatus_delete.
AStatus* AStatus_newOk(void);
AStatus* AStatus_fromStatus(binder_status_t status);
AStatus* AStatus_fromExceptionCode(binder_exception_t exception);
AStatus* AStatus_fromExceptionCodeWithMessage(binder_exception_t exception, const char* message);
AStatus* AStatus_fromServiceSpecificError(int32_t error);
AStatus* AStatus_fromServiceSpecificErrorWithMessage(int32_t error, const char* message);

bool AStatus_isOk(const AStatus* status);
binder_exception_t AStatus_getExceptionCode(const AStatus* status);
/// 0 unless the exception is EX_SERVICE_SPECIFIC.
int32_t AStatus_getServiceSpecificError(const AStatus* status);
/// STATUS_OK unless the exception is EX_TRANSACTION_FAILED.
binder_status_t AStatus_getStatus(const AStatus* status);
/// Valid as long as the status is.
const char* AStatus_getMessage(const AStatus* status);
/// One line for people, to be freed with AStatus_deleteDescription.
const char* AStatus_getDescription(const AStatus* status);
void AStatus_deleteDescription(const char* description);
/// Accepts null and the shared OK status.
void AStatus_delete(AStatus* status);

}  // extern "C"
