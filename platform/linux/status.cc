#include "platform/linux/status.h"

#include <android/binder_parcel.h>
#include <android/binder_parcel_utils.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <utility>

#include "platform/linux/parcel.h"

namespace {

/// A block to skip follows either word; the second means EX_NONE.
constexpr int32_t kNotedHeader = -127;
constexpr int32_t kReplyHeader = -128;

// clang-format off
#define KVOX_STATUSES(S) \
  S(OK) S(PERMISSION_DENIED) S(NAME_NOT_FOUND) S(WOULD_BLOCK) S(NO_MEMORY) S(ALREADY_EXISTS) \
  S(NO_INIT) S(BAD_VALUE) S(DEAD_OBJECT) S(INVALID_OPERATION) S(NOT_ENOUGH_DATA) \
  S(UNKNOWN_TRANSACTION) S(BAD_INDEX) S(TIMED_OUT) S(UNKNOWN_ERROR) S(BAD_TYPE) \
  S(FAILED_TRANSACTION) S(FDS_NOT_ALLOWED) S(UNEXPECTED_NULL)
#define KVOX_EXCEPTIONS(E) \
  E(NONE) E(SECURITY) E(BAD_PARCELABLE) E(ILLEGAL_ARGUMENT) E(NULL_POINTER) E(ILLEGAL_STATE) \
  E(NETWORK_MAIN_THREAD) E(UNSUPPORTED_OPERATION) E(SERVICE_SPECIFIC) E(PARCELABLE) \
  E(TRANSACTION_FAILED)
// clang-format on

struct Name {
  int32_t value;
  const char* text;
};
#define KVOX_STATUS_NAME(name) {STATUS_##name, "STATUS_" #name},
#define KVOX_EXCEPTION_NAME(name) {EX_##name, "EX_" #name},
constexpr Name kStatuses[] = {KVOX_STATUSES(KVOX_STATUS_NAME)};
constexpr Name kExceptions[] = {KVOX_EXCEPTIONS(KVOX_EXCEPTION_NAME)};

template <size_t N>
const char* NameOf(const Name (&names)[N], int32_t value) {
  const auto* found = std::ranges::find(names, value, &Name::value);
  return found == std::end(names) ? nullptr : found->text;
}

/// The exception, or EX_TRANSACTION_FAILED for an invalid number.
binder_exception_t KnownException(binder_exception_t exception) {
  return NameOf(kExceptions, exception) == nullptr ? EX_TRANSACTION_FAILED : exception;
}

AStatus* NewException(binder_exception_t exception, int32_t code, const char* message) {
  const binder_exception_t known = KnownException(exception);
  if (known == EX_NONE) return AStatus_newOk();
  if (known == EX_TRANSACTION_FAILED) code = STATUS_FAILED_TRANSACTION;
  return new AStatus{known, code, message == nullptr ? "" : message};
}

/// Skips a block whose first word is its size in bytes, that word included; 0 is an empty one.
binder_status_t SkipBlock(const AParcel& parcel) {
  int32_t size = 0;
  const binder_status_t status = parcel.Read(&size);
  if (status != STATUS_OK || size == 0) return status;
  const auto word = static_cast<int32_t>(sizeof size);
  if (size < word || static_cast<size_t>(size - word) > parcel.BytesLeft()) {
    return STATUS_UNKNOWN_ERROR;
  }
  parcel.set_position(parcel.position() + static_cast<size_t>(size - word));
  return STATUS_OK;
}

binder_status_t ReadHeader(const AParcel& parcel, AStatus* status) {
  binder_status_t result = parcel.Read(&status->exception);
  if (result == STATUS_OK && status->exception == kNotedHeader) {
    result = SkipBlock(parcel);
    if (result == STATUS_OK) result = parcel.Read(&status->exception);
  }
  if (result == STATUS_OK && status->exception == kReplyHeader) {
    status->exception = EX_NONE;
    return SkipBlock(parcel);
  }
  if (result != STATUS_OK || status->exception == EX_NONE) return result;
  result = ndk::AParcel_readData(&parcel, &status->message);
  if (result == STATUS_OK) result = SkipBlock(parcel);
  if (result == STATUS_OK && status->exception == EX_SERVICE_SPECIFIC) {
    result = parcel.Read(&status->code);
  }
  status->exception = KnownException(status->exception);
  if (status->exception == EX_TRANSACTION_FAILED) status->code = STATUS_FAILED_TRANSACTION;
  return result;
}

}  // namespace

namespace kvox::binder {

binder_status_t KnownStatus(binder_status_t status) {
  return NameOf(kStatuses, status) == nullptr ? STATUS_UNKNOWN_ERROR : status;
}

}  // namespace kvox::binder

AStatus* AStatus_newOk() {
  static AStatus* const ok = new AStatus;  // lives forever: shared by all methods
  return ok;
}

AStatus* AStatus_fromStatus(binder_status_t status) {
  if (status == STATUS_OK) return AStatus_newOk();
  return new AStatus{EX_TRANSACTION_FAILED, kvox::binder::KnownStatus(status), ""};
}
AStatus* AStatus_fromExceptionCode(binder_exception_t exception) {
  return NewException(exception, 0, nullptr);
}
AStatus* AStatus_fromExceptionCodeWithMessage(binder_exception_t exception, const char* message) {
  return NewException(exception, 0, message);
}
AStatus* AStatus_fromServiceSpecificError(int32_t error) {
  return NewException(EX_SERVICE_SPECIFIC, error, nullptr);
}
AStatus* AStatus_fromServiceSpecificErrorWithMessage(int32_t error, const char* message) {
  return NewException(EX_SERVICE_SPECIFIC, error, message);
}

bool AStatus_isOk(const AStatus* status) {
  return status->exception == EX_NONE;
}
binder_exception_t AStatus_getExceptionCode(const AStatus* status) {
  return status->exception;
}
int32_t AStatus_getServiceSpecificError(const AStatus* status) {
  return status->exception == EX_SERVICE_SPECIFIC ? status->code : 0;
}
binder_status_t AStatus_getStatus(const AStatus* status) {
  return status->exception == EX_TRANSACTION_FAILED ? status->code : STATUS_OK;
}
const char* AStatus_getMessage(const AStatus* status) {
  return status->message.c_str();
}

const char* AStatus_getDescription(const AStatus* status) {
  std::string text = NameOf(kExceptions, status->exception);
  if (status->exception == EX_SERVICE_SPECIFIC) text += " " + std::to_string(status->code);
  if (status->exception == EX_TRANSACTION_FAILED) {
    text += std::string(" (") + NameOf(kStatuses, status->code) + ")";
  }
  if (!status->message.empty()) text += ": " + status->message;
  return strdup(text.c_str());
}

void AStatus_deleteDescription(const char* description) {
  free(const_cast<char*>(description));
}

void AStatus_delete(AStatus* status) {
  if (status != AStatus_newOk()) delete status;
}

binder_status_t AParcel_writeStatusHeader(AParcel* parcel, const AStatus* status) {
  if (status == nullptr) return STATUS_UNEXPECTED_NULL;
  if (status->exception == EX_TRANSACTION_FAILED) return status->code;
  binder_status_t result = parcel->Write(status->exception);
  if (result != STATUS_OK || status->exception == EX_NONE) return result;
  result = ndk::AParcel_writeData(parcel, status->message);
  if (result == STATUS_OK) result = parcel->Write(int32_t{0});
  if (result == STATUS_OK && status->exception == EX_SERVICE_SPECIFIC) {
    result = parcel->Write(status->code);
  }
  return result;
}

binder_status_t AParcel_readStatusHeader(const AParcel* parcel, AStatus** status) {
  AStatus read;
  const binder_status_t result = ReadHeader(*parcel, &read);
  if (result != STATUS_OK) return result;
  *status = read.exception == EX_NONE ? AStatus_newOk() : new AStatus(std::move(read));
  return STATUS_OK;
}
