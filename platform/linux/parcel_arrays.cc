// Arrays in parcels: a count, then the elements; -1 is a null array.
#include <cstring>

#include "platform/linux/parcel.h"

namespace {

/// No string or parcelable is smaller.
constexpr size_t kMinElementSize = 4;

binder_status_t WriteCount(AParcel* parcel, const void* array, int32_t length) {
  const bool fits = array == nullptr ? length <= 0 : length != -1;
  return length >= -1 && fits ? parcel->Write(length) : binder_status_t{STATUS_BAD_VALUE};
}

/// Refuses a count of more elements than there are bytes left, so that nothing is allocated for it.
binder_status_t ReadCount(const AParcel* parcel, int32_t* length, size_t min_element_size) {
  const binder_status_t status = parcel->Read(length);
  if (status != STATUS_OK || *length == -1) return status;
  if (*length < -1) return STATUS_BAD_VALUE;
  const bool fits = static_cast<size_t>(*length) <= parcel->BytesLeft() / min_element_size;
  return fits ? STATUS_OK : STATUS_NO_MEMORY;
}

template <typename T>
binder_status_t WritePacked(AParcel* parcel, const T* values, int32_t length) {
  const binder_status_t status = WriteCount(parcel, values, length);
  if (status != STATUS_OK || length <= 0) return status;
  return parcel->WriteBytes(values, static_cast<size_t>(length) * sizeof(T));
}

template <typename T>
binder_status_t ReadPacked(const AParcel* parcel, void* array,
                           bool (*allocator)(void*, int32_t, T**)) {
  int32_t length = 0;
  const binder_status_t status = ReadCount(parcel, &length, sizeof(T));
  if (status != STATUS_OK) return status;
  T* buffer = nullptr;
  if (length < 0) return allocator(array, length, &buffer) ? STATUS_OK : STATUS_UNEXPECTED_NULL;
  const size_t size = static_cast<size_t>(length) * sizeof(T);
  const uint8_t* bytes = parcel->Take(size);
  if (bytes == nullptr || !allocator(array, length, &buffer)) return STATUS_NO_MEMORY;
  if (length == 0) return STATUS_OK;
  if (buffer == nullptr) return STATUS_NO_MEMORY;
  std::memcpy(buffer, bytes, size);
  return STATUS_OK;
}

}  // namespace

binder_status_t AParcel_writeByteArray(AParcel* parcel, const int8_t* arrayData, int32_t length) {
  return WritePacked(parcel, arrayData, length);
}
binder_status_t AParcel_readByteArray(const AParcel* parcel, void* arrayData,
                                      AParcel_byteArrayAllocator allocator) {
  return ReadPacked(parcel, arrayData, allocator);
}
binder_status_t AParcel_writeFloatArray(AParcel* parcel, const float* arrayData, int32_t length) {
  return WritePacked(parcel, arrayData, length);
}
binder_status_t AParcel_readFloatArray(const AParcel* parcel, void* arrayData,
                                       AParcel_floatArrayAllocator allocator) {
  return ReadPacked(parcel, arrayData, allocator);
}

binder_status_t AParcel_writeStringArray(AParcel* parcel, const void* arrayData, int32_t length,
                                         AParcel_stringArrayElementGetter getter) {
  binder_status_t status = WriteCount(parcel, arrayData, length);
  for (int32_t i = 0; i < length && status == STATUS_OK; ++i) {
    int32_t size = -1;
    const char* text = getter(arrayData, static_cast<size_t>(i), &size);
    status = AParcel_writeString(parcel, text, size);
  }
  return status;
}

binder_status_t AParcel_readStringArray(const AParcel* parcel, void* arrayData,
                                        AParcel_arrayAllocator allocator,
                                        AParcel_stringArrayElementAllocator elementAllocator) {
  int32_t length = 0;
  binder_status_t status = ReadCount(parcel, &length, kMinElementSize);
  if (status != STATUS_OK) return status;
  if (!allocator(arrayData, length)) return STATUS_NO_MEMORY;
  struct Element {
    void* array;
    size_t index;
    AParcel_stringArrayElementAllocator allocator;
  };
  for (int32_t i = 0; i < length && status == STATUS_OK; ++i) {
    Element element{arrayData, static_cast<size_t>(i), elementAllocator};
    status = AParcel_readString(parcel, &element, [](void* to, int32_t size, char** buffer) {
      const auto& target = *static_cast<Element*>(to);
      return target.allocator(target.array, target.index, size, buffer);
    });
  }
  return status;
}

binder_status_t AParcel_writeParcelableArray(AParcel* parcel, const void* arrayData, int32_t length,
                                             AParcel_writeParcelableElement elementWriter) {
  binder_status_t status = WriteCount(parcel, arrayData, length);
  for (int32_t i = 0; i < length && status == STATUS_OK; ++i) {
    status = elementWriter(parcel, arrayData, static_cast<size_t>(i));
  }
  return status;
}

binder_status_t AParcel_readParcelableArray(const AParcel* parcel, void* arrayData,
                                            AParcel_arrayAllocator allocator,
                                            AParcel_readParcelableElement elementReader) {
  int32_t length = 0;
  binder_status_t status = ReadCount(parcel, &length, kMinElementSize);
  if (status != STATUS_OK) return status;
  if (!allocator(arrayData, length)) return STATUS_NO_MEMORY;
  for (int32_t i = 0; i < length && status == STATUS_OK; ++i) {
    status = elementReader(parcel, arrayData, static_cast<size_t>(i));
  }
  return status;
}
