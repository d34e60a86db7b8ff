// The bytes of a call or a reply, read in the order in which they were written. docs/transport.md
// has the layout. One thread at a time.
#pragma once

#include <android/binder_ibinder.h>
#include <android/binder_status.h>

/// An allocator returns false to refuse. A length of -1 is null; a string's length includes its
/// terminator.
typedef bool (*AParcel_stringAllocator)(void* stringData, int32_t length, char** buffer);
typedef bool (*AParcel_arrayAllocator)(void* arrayData, int32_t length);
typedef bool (*AParcel_stringArrayElementAllocator)(void* arrayData, size_t index, int32_t length,
                                                    char** buffer);
typedef const char* (*AParcel_stringArrayElementGetter)(const void* arrayData, size_t index,
                                                        int32_t* outLength);
typedef bool (*AParcel_byteArrayAllocator)(void* arrayData, int32_t length, int8_t** outBuffer);
typedef bool (*AParcel_floatArrayAllocator)(void* arrayData, int32_t length, float** outBuffer);
typedef binder_status_t (*AParcel_writeParcelableElement)(AParcel* parcel, const void* arrayData,
                                                          size_t index);
typedef binder_status_t (*AParcel_readParcelableElement)(const AParcel* parcel, void* arrayData,
                                                         size_t index);

extern "C" {

/// Accepts null.
void AParcel_delete(AParcel* parcel);
/// Bytes from the start of the parcel. A position past the end is for reading only.
int32_t AParcel_getDataPosition(const AParcel* parcel);
binder_status_t AParcel_setDataPosition(const AParcel* parcel, int32_t position);

binder_status_t AParcel_writeInt32(AParcel* parcel, int32_t value);
binder_status_t AParcel_writeFloat(AParcel* parcel, float value);
binder_status_t AParcel_writeBool(AParcel* parcel, bool value);
binder_status_t AParcel_writeByte(AParcel* parcel, int8_t value);
binder_status_t AParcel_readInt32(const AParcel* parcel, int32_t* value);
binder_status_t AParcel_readFloat(const AParcel* parcel, float* value);
binder_status_t AParcel_readBool(const AParcel* parcel, bool* value);
binder_status_t AParcel_readByte(const AParcel* parcel, int8_t* value);

/// UTF-8 of `length` bytes; null with -1 writes null. STATUS_BAD_VALUE when the text breaks off
/// within a character.
binder_status_t AParcel_writeString(AParcel* parcel, const char* string, int32_t length);
binder_status_t AParcel_readString(const AParcel* parcel, void* stringData,
                                   AParcel_stringAllocator allocator);
binder_status_t AParcel_writeStringArray(AParcel* parcel, const void* arrayData, int32_t length,
                                         AParcel_stringArrayElementGetter getter);
binder_status_t AParcel_readStringArray(const AParcel* parcel, void* arrayData,
                                        AParcel_arrayAllocator allocator,
                                        AParcel_stringArrayElementAllocator elementAllocator);

binder_status_t AParcel_writeByteArray(AParcel* parcel, const int8_t* arrayData, int32_t length);
binder_status_t AParcel_readByteArray(const AParcel* parcel, void* arrayData,
                                      AParcel_byteArrayAllocator allocator);
binder_status_t AParcel_writeFloatArray(AParcel* parcel, const float* arrayData, int32_t length);
binder_status_t AParcel_readFloatArray(const AParcel* parcel, void* arrayData,
                                       AParcel_floatArrayAllocator allocator);
binder_status_t AParcel_writeParcelableArray(AParcel* parcel, const void* arrayData, int32_t length,
                                             AParcel_writeParcelableElement elementWriter);
binder_status_t AParcel_readParcelableArray(const AParcel* parcel, void* arrayData,
                                            AParcel_arrayAllocator allocator,
                                            AParcel_readParcelableElement elementReader);

/// Null is written and read as null; a read object has one strong reference for the caller.
binder_status_t AParcel_writeStrongBinder(AParcel* parcel, AIBinder* binder);
binder_status_t AParcel_readStrongBinder(const AParcel* parcel, AIBinder** binder);

/// A status whose exception is EX_TRANSACTION_FAILED is not written: its inner status is returned.
binder_status_t AParcel_writeStatusHeader(AParcel* parcel, const AStatus* status);
binder_status_t AParcel_readStatusHeader(const AParcel* parcel, AStatus** status);

}  // extern "C"
