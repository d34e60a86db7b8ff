#include "platform/linux/parcel.h"

#include <algorithm>
#include <string>

#include "platform/linux/frames.h"
#include "platform/linux/utf16.h"

using kvox::binder::kReferencePresent;
using kvox::binder::kReferenceSize;

namespace {

constexpr int32_t kNoStability = 0;
constexpr int32_t kVendorStability = 3;
constexpr int32_t kSystemStability = 12;
constexpr int32_t kVintfStability = 63;

constexpr size_t Padded(size_t size) {
  return (size + 3) & ~size_t{3};
}

/// Reads a word into a smaller type.
template <typename T>
binder_status_t ReadNarrow(const AParcel* parcel, T* value) {
  int32_t word = 0;
  const binder_status_t status = parcel->Read(&word);
  if (status == STATUS_OK) *value = static_cast<T>(word);
  return status;
}

}  // namespace

binder_status_t AParcel::WriteBytes(const void* bytes, size_t size) {
  if (position_ > data_.size() || Padded(size) > INT32_MAX - position_) return STATUS_NO_MEMORY;
  const size_t end = position_ + Padded(size);
  if (position_ < data_.size()) {
    std::erase_if(objects_, [&](const Object& object) {
      return object.position < end && position_ < object.position + kReferenceSize;
    });
  }
  if (end > data_.size()) data_.resize(end);
  uint8_t* const to = data_.data() + std::exchange(position_, end);
  std::copy_n(static_cast<const uint8_t*>(bytes), size, to);
  std::fill(to + size, to + Padded(size), uint8_t{0});
  return STATUS_OK;
}

const uint8_t* AParcel::Take(size_t size) const {
  if (size > BytesLeft() || Padded(size) > BytesLeft()) return nullptr;
  return data_.data() + std::exchange(position_, position_ + Padded(size));
}

binder_status_t AParcel::WriteReference(AIBinder* binder) {
  const auto position = static_cast<uint32_t>(position_);
  // The address is set when the parcel is sent.
  constexpr int32_t kReference[] = {kReferencePresent, 0, 0, kSystemStability};
  static_assert(sizeof kReference == kReferenceSize);
  const binder_status_t status = WriteBytes(kReference, sizeof kReference);
  if (status != STATUS_OK) return status;
  AIBinder_incStrong(binder);
  objects_.push_back({position, ndk::SpAIBinder(binder)});
  return STATUS_OK;
}

AIBinder* AParcel::FindObject(size_t position) const {
  const auto found = std::ranges::find(objects_, position, &Object::position);
  return found == objects_.end() ? nullptr : found->binder.get();
}

void AParcel_delete(AParcel* parcel) {
  delete parcel;
}

int32_t AParcel_getDataPosition(const AParcel* parcel) {
  return static_cast<int32_t>(parcel->position());
}

binder_status_t AParcel_setDataPosition(const AParcel* parcel, int32_t position) {
  if (position < 0) return STATUS_BAD_VALUE;
  parcel->set_position(static_cast<size_t>(position));
  return STATUS_OK;
}

binder_status_t AParcel_writeInt32(AParcel* parcel, int32_t value) {
  return parcel->Write(value);
}
binder_status_t AParcel_writeFloat(AParcel* parcel, float value) {
  return parcel->Write(value);
}
binder_status_t AParcel_writeBool(AParcel* parcel, bool value) {
  return parcel->Write(int32_t{value});
}
binder_status_t AParcel_writeByte(AParcel* parcel, int8_t value) {
  return parcel->Write(int32_t{value});
}

binder_status_t AParcel_readInt32(const AParcel* parcel, int32_t* value) {
  return parcel->Read(value);
}
binder_status_t AParcel_readFloat(const AParcel* parcel, float* value) {
  return parcel->Read(value);
}
binder_status_t AParcel_readBool(const AParcel* parcel, bool* value) {
  return ReadNarrow(parcel, value);
}
binder_status_t AParcel_readByte(const AParcel* parcel, int8_t* value) {
  return ReadNarrow(parcel, value);
}

binder_status_t AParcel_writeString(AParcel* parcel, const char* string, int32_t length) {
  if (string == nullptr && length == -1) return parcel->Write(int32_t{-1});
  if (string == nullptr || length < 0) return STATUS_BAD_VALUE;
  const auto units = kvox::binder::ToUtf16({string, static_cast<size_t>(length)});
  if (!units) return STATUS_BAD_VALUE;
  const binder_status_t status = parcel->Write(static_cast<int32_t>(units->size()));
  if (status != STATUS_OK) return status;
  return parcel->WriteBytes(units->c_str(), (units->size() + 1) * sizeof(char16_t));
}

binder_status_t AParcel_readString(const AParcel* parcel, void* stringData,
                                   AParcel_stringAllocator allocator) {
  int32_t count = -1;
  const binder_status_t status = parcel->Read(&count);
  if (status != STATUS_OK) return status;
  // Anything but a whole string with its terminator reads as null.
  const auto units = static_cast<size_t>(std::max(count, 0));
  const uint8_t* bytes = count < 0 ? nullptr : parcel->Take((units + 1) * sizeof(char16_t));
  if (bytes == nullptr || bytes[units * 2] != 0 || bytes[units * 2 + 1] != 0) {
    return allocator(stringData, -1, nullptr) ? STATUS_OK : STATUS_UNEXPECTED_NULL;
  }
  std::u16string utf16(units, u'\0');
  std::memcpy(utf16.data(), bytes, units * sizeof(char16_t));
  const std::string text = kvox::binder::ToUtf8(utf16);
  const size_t size = text.size() + 1;
  char* buffer = nullptr;
  if (size > INT32_MAX || !allocator(stringData, static_cast<int32_t>(size), &buffer) ||
      buffer == nullptr) {
    return STATUS_NO_MEMORY;
  }
  std::memcpy(buffer, text.c_str(), size);
  return STATUS_OK;
}

binder_status_t AParcel_writeStrongBinder(AParcel* parcel, AIBinder* binder) {
  constexpr int32_t kNull[] = {0, kNoStability};
  return binder == nullptr ? parcel->WriteBytes(kNull, sizeof kNull)
                           : parcel->WriteReference(binder);
}

binder_status_t AParcel_readStrongBinder(const AParcel* parcel, AIBinder** binder) {
  const size_t position = parcel->position();
  int32_t presence = 0;
  uint64_t address = 0;
  int32_t stability = 0;
  binder_status_t status = parcel->Read(&presence);
  if (status == STATUS_OK && presence != 0) status = parcel->Read(&address);
  if (status == STATUS_OK) status = parcel->Read(&stability);
  if (status != STATUS_OK) return status;
  if (presence == 0) {
    *binder = nullptr;
    return stability == kNoStability ? STATUS_OK : STATUS_BAD_TYPE;
  }
  AIBinder* object = presence == kReferencePresent ? parcel->FindObject(position) : nullptr;
  const bool known = stability == kVendorStability || stability == kSystemStability ||
                     stability == kVintfStability;
  if (object == nullptr || !known) return STATUS_BAD_TYPE;
  AIBinder_incStrong(object);
  *binder = object;
  return STATUS_OK;
}

namespace kvox::binder {

binder_status_t WriteInterfaceToken(AParcel& parcel, const char* descriptor) {
  return AParcel_writeString(&parcel, descriptor, static_cast<int32_t>(std::strlen(descriptor)));
}

binder_status_t CheckInterfaceToken(const AParcel& parcel, const char* descriptor) {
  // Compared in place, without a temporary string: this runs for every call.
  const std::string_view expected(descriptor);
  int32_t count = -1;
  if (parcel.Read(&count) != STATUS_OK || count < 0) return STATUS_BAD_TYPE;
  const auto units = static_cast<size_t>(count);
  const uint8_t* bytes = parcel.Take((units + 1) * sizeof(char16_t));
  if (bytes == nullptr || units != expected.size()) return STATUS_BAD_TYPE;
  for (size_t i = 0; i < units; ++i) {
    if (bytes[2 * i] != static_cast<uint8_t>(expected[i]) || bytes[2 * i + 1] != 0) {
      return STATUS_BAD_TYPE;
    }
  }
  return STATUS_OK;
}

}  // namespace kvox::binder
