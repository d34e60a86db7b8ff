// Writes and reads any C++ value of an interface: scalars, strings, enumerations, parcelables,
// interfaces, and vectors of bytes, floats, strings and parcelables.
#pragma once

#include <android/binder_auto_utils.h>
#include <android/binder_interface_utils.h>
#include <android/binder_parcel.h>

#include <climits>
#include <cstdint>
#include <memory>
#include <string>
#include <type_traits>
#include <vector>

namespace ndk {

template <typename T>
binder_status_t AParcel_writeData(AParcel* parcel, const T& value);
template <typename T>
binder_status_t AParcel_readData(const AParcel* parcel, T* value);

namespace impl {

template <typename T>
inline constexpr bool kIsVector = false;
template <typename T>
inline constexpr bool kIsVector<std::vector<T>> = true;
template <typename T>
inline constexpr bool kIsInterface = false;
template <typename T>
inline constexpr bool kIsInterface<std::shared_ptr<T>> = std::is_base_of_v<ICInterface, T>;
template <typename T>
inline constexpr bool kUnsupported = false;

inline bool AllocateString(void* string, int32_t length, char** buffer) {
  if (length < 1) return false;
  auto* text = static_cast<std::string*>(string);
  text->resize(static_cast<size_t>(length) - 1);
  *buffer = text->data();
  return true;
}
inline bool AllocateStringElement(void* vector, size_t index, int32_t length, char** buffer) {
  return AllocateString(&(*static_cast<std::vector<std::string>*>(vector))[index], length, buffer);
}
inline const char* GetStringElement(const void* vector, size_t index, int32_t* length) {
  const std::string& text = (*static_cast<const std::vector<std::string>*>(vector))[index];
  *length = static_cast<int32_t>(text.size());
  return text.data();
}

template <typename T>
bool AllocateElements(void* vector, int32_t length) {
  if (length < 0) return false;
  static_cast<std::vector<T>*>(vector)->resize(static_cast<size_t>(length));
  return true;
}
template <typename T, typename Raw>
bool AllocateValues(void* vector, int32_t length, Raw** buffer) {
  static_assert(sizeof(T) == sizeof(Raw));
  if (!AllocateElements<T>(vector, length)) return false;
  *buffer = reinterpret_cast<Raw*>(static_cast<std::vector<T>*>(vector)->data());
  return true;
}
template <typename T>
binder_status_t WriteElement(AParcel* parcel, const void* vector, size_t index) {
  return AParcel_writeData(parcel, (*static_cast<const std::vector<T>*>(vector))[index]);
}
template <typename T>
binder_status_t ReadElement(const AParcel* parcel, void* vector, size_t index) {
  return AParcel_readData(parcel, &(*static_cast<std::vector<T>*>(vector))[index]);
}

template <typename T>
binder_status_t WriteVector(AParcel* parcel, const std::vector<T>& vector) {
  if (vector.size() > INT32_MAX) return STATUS_BAD_VALUE;
  const auto length = static_cast<int32_t>(vector.size());
  if constexpr (std::is_same_v<T, uint8_t>) {
    return AParcel_writeByteArray(parcel, reinterpret_cast<const int8_t*>(vector.data()), length);
  } else if constexpr (std::is_same_v<T, float>) {
    return AParcel_writeFloatArray(parcel, vector.data(), length);
  } else if constexpr (std::is_same_v<T, std::string>) {
    return AParcel_writeStringArray(parcel, &vector, length, GetStringElement);
  } else {
    return AParcel_writeParcelableArray(parcel, &vector, length, WriteElement<T>);
  }
}

template <typename T>
binder_status_t ReadVector(const AParcel* parcel, std::vector<T>* vector) {
  if constexpr (std::is_same_v<T, uint8_t>) {
    return AParcel_readByteArray(parcel, vector, AllocateValues<uint8_t, int8_t>);
  } else if constexpr (std::is_same_v<T, float>) {
    return AParcel_readFloatArray(parcel, vector, AllocateValues<float, float>);
  } else if constexpr (std::is_same_v<T, std::string>) {
    return AParcel_readStringArray(parcel, vector, AllocateElements<std::string>,
                                   AllocateStringElement);
  } else {
    return AParcel_readParcelableArray(parcel, vector, AllocateElements<T>, ReadElement<T>);
  }
}

}  // namespace impl

template <typename T>
binder_status_t AParcel_writeData(AParcel* parcel, const T& value) {
  if constexpr (std::is_same_v<T, bool>) {
    return AParcel_writeBool(parcel, value);
  } else if constexpr (std::is_same_v<T, int8_t>) {
    return AParcel_writeByte(parcel, value);
  } else if constexpr (std::is_same_v<T, int32_t>) {
    return AParcel_writeInt32(parcel, value);
  } else if constexpr (std::is_same_v<T, float>) {
    return AParcel_writeFloat(parcel, value);
  } else if constexpr (std::is_enum_v<T>) {
    return AParcel_writeData(parcel, static_cast<std::underlying_type_t<T>>(value));
  } else if constexpr (std::is_same_v<T, std::string>) {
    if (value.size() > INT32_MAX) return STATUS_BAD_VALUE;
    return AParcel_writeString(parcel, value.data(), static_cast<int32_t>(value.size()));
  } else if constexpr (impl::kIsVector<T>) {
    return impl::WriteVector(parcel, value);
  } else if constexpr (impl::kIsInterface<T>) {
    return AParcel_writeStrongBinder(parcel, value ? value->asBinder().get() : nullptr);
  } else if constexpr (requires { value.writeToParcel(parcel); }) {
    const binder_status_t status = AParcel_writeInt32(parcel, 1);
    return status == STATUS_OK ? value.writeToParcel(parcel) : status;
  } else {
    static_assert(impl::kUnsupported<T>, "no parcel layout for this type");
  }
}

template <typename T>
binder_status_t AParcel_readData(const AParcel* parcel, T* value) {
  if constexpr (std::is_same_v<T, bool>) {
    return AParcel_readBool(parcel, value);
  } else if constexpr (std::is_same_v<T, int8_t>) {
    return AParcel_readByte(parcel, value);
  } else if constexpr (std::is_same_v<T, int32_t>) {
    return AParcel_readInt32(parcel, value);
  } else if constexpr (std::is_same_v<T, float>) {
    return AParcel_readFloat(parcel, value);
  } else if constexpr (std::is_enum_v<T>) {
    auto number = static_cast<std::underlying_type_t<T>>(*value);
    const binder_status_t status = AParcel_readData(parcel, &number);
    *value = static_cast<T>(number);
    return status;
  } else if constexpr (std::is_same_v<T, std::string>) {
    return AParcel_readString(parcel, value, impl::AllocateString);
  } else if constexpr (impl::kIsVector<T>) {
    return impl::ReadVector(parcel, value);
  } else if constexpr (impl::kIsInterface<T>) {
    SpAIBinder binder;
    const binder_status_t status = AParcel_readStrongBinder(parcel, binder.getR());
    if (status == STATUS_OK) *value = T::element_type::fromBinder(binder);
    return status;
  } else if constexpr (requires { value->readFromParcel(parcel); }) {
    int32_t presence = 0;
    const binder_status_t status = AParcel_readInt32(parcel, &presence);
    if (status != STATUS_OK) return status;
    return presence == 0 ? STATUS_UNEXPECTED_NULL : value->readFromParcel(parcel);
  } else {
    static_assert(impl::kUnsupported<T>, "no parcel layout for this type");
  }
}

}  // namespace ndk
