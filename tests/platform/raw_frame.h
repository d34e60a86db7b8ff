// Hand-made frames.
#pragma once

#include <cstring>
#include <string_view>
#include <vector>

#include "platform/linux/frames.h"
#include "platform/linux/parcel.h"

namespace kvox::binder {

struct Frame {
  FrameHeader header = {};
  std::vector<uint8_t> parcel = {};
  std::vector<uint8_t> object_list = {};
};

/// The bytes of a frame on the wire.
inline std::vector<uint8_t> Wire(const Frame& frame) {
  FrameHeader header = frame.header;
  header.parcel_size = static_cast<uint32_t>(frame.parcel.size());
  header.object_list_size = static_cast<uint32_t>(frame.object_list.size());
  std::vector<uint8_t> wire(sizeof header);
  std::memcpy(wire.data(), &header, sizeof header);
  wire.insert(wire.end(), frame.parcel.begin(), frame.parcel.end());
  wire.insert(wire.end(), frame.object_list.begin(), frame.object_list.end());
  return wire;
}

/// Appends a number to the parcel.
inline void Put(Frame* frame, int32_t value) {
  const auto* bytes = reinterpret_cast<const uint8_t*>(&value);
  frame->parcel.insert(frame->parcel.end(), bytes, bytes + sizeof value);
}

/// Appends a reference to the sender's object `id` to the parcel, and its entry to the object list.
inline void PutObject(Frame* frame, uint64_t id, std::string_view descriptor) {
  const ObjectEntry entry{static_cast<uint32_t>(frame->parcel.size()),
                          static_cast<uint32_t>(descriptor.size())};
  const uint64_t address = id << 1;
  Put(frame, kReferencePresent);
  Put(frame, static_cast<int32_t>(address));
  Put(frame, static_cast<int32_t>(address >> 32));
  Put(frame, 12);
  const size_t at = frame->object_list.size();
  frame->object_list.resize(at + sizeof entry + PaddedSize(entry.descriptor_size));
  std::memcpy(frame->object_list.data() + at, &entry, sizeof entry);
  std::memcpy(frame->object_list.data() + at + sizeof entry, descriptor.data(), descriptor.size());
  ++frame->header.object_count;
}

/// A request without its arguments.
inline Frame RequestTo(uint64_t address, transaction_code_t code, const char* descriptor) {
  AParcel token;
  WriteInterfaceToken(token, descriptor);
  Frame frame;
  frame.header.code = code;
  frame.header.address = address;
  frame.parcel.assign(token.data().begin(), token.data().end());
  return frame;
}

}  // namespace kvox::binder
