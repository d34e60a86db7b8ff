// A parcel's bytes, and the objects that its references refer to. References get their addresses
// when the parcel is sent; in a received parcel, the objects are already resolved.
#pragma once

#include <android/binder_auto_utils.h>
#include <android/binder_parcel.h>

#include <cstdint>
#include <cstring>
#include <span>
#include <type_traits>
#include <utility>
#include <vector>

struct AParcel {
 public:
  struct Object {
    uint32_t position;
    ndk::SpAIBinder binder;
  };

  AParcel() = default;
  /// An empty parcel for a call on `target`.
  explicit AParcel(const AIBinder* target) : target_(target) { data_.reserve(kUsualSize); }
  /// A parcel that was received.
  AParcel(std::vector<uint8_t> data, std::vector<Object> objects)
      : data_(std::move(data)), objects_(std::move(objects)) {}
  AParcel(const AParcel&) = delete;
  AParcel& operator=(const AParcel&) = delete;

  const AIBinder* target() const { return target_; }
  std::span<const uint8_t> data() const { return data_; }
  std::span<uint8_t> mutable_data() { return data_; }
  std::span<const Object> objects() const { return objects_; }

  size_t position() const { return position_; }
  void set_position(size_t position) const { position_ = position; }
  size_t BytesLeft() const { return position_ < data_.size() ? data_.size() - position_ : 0; }

  /// Writes the bytes and their padding at the position, which moves past them. STATUS_NO_MEMORY
  /// when the position is past the end or the parcel gets too large.
  binder_status_t WriteBytes(const void* bytes, size_t size);
  /// The next `size` bytes; the position moves past them and their padding. Null when the parcel
  /// ends before.
  const uint8_t* Take(size_t size) const;

  template <typename T>
  binder_status_t Write(T value) {
    static_assert(std::is_trivially_copyable_v<T>);
    return WriteBytes(&value, sizeof value);
  }
  template <typename T>
  binder_status_t Read(T* value) const {
    const uint8_t* bytes = Take(sizeof *value);
    if (bytes == nullptr) return STATUS_NOT_ENOUGH_DATA;
    std::memcpy(value, bytes, sizeof *value);
    return STATUS_OK;
  }

  /// Writes a reference to the object, which the parcel holds from now on.
  binder_status_t WriteReference(AIBinder* binder);

  /// Drops all but the objects.
  void DropBytes() {
    std::vector<uint8_t>().swap(data_);  // assignment would keep the capacity
    position_ = 0;
  }
  /// The object of the reference at `position`, null when there is none.
  AIBinder* FindObject(size_t position) const;

 private:
  static constexpr size_t kUsualSize = 256;

  const AIBinder* target_ = nullptr;  // only compared
  std::vector<uint8_t> data_;
  mutable size_t position_ = 0;
  std::vector<Object> objects_;
};

namespace kvox::binder {

/// The text at the start of every request.
binder_status_t WriteInterfaceToken(AParcel& parcel, const char* descriptor);
/// STATUS_BAD_TYPE when the parcel does not start with it.
binder_status_t CheckInterfaceToken(const AParcel& parcel, const char* descriptor);

}  // namespace kvox::binder
