// Frames of the transport: sound ones for the tests' small interface, and any others.
#pragma once

#include <fuzzer/FuzzedDataProvider.h>

#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "platform/linux/frames.h"
#include "platform/linux/parcel.h"
#include "tests/platform/echo.h"

namespace kvox::fuzz {

using aidl::kvoxtest::IEcho;
using Wire = std::vector<uint8_t>;

inline void Append(Wire& wire, const void* bytes, size_t size) {
  const auto* const first = static_cast<const uint8_t*>(bytes);
  wire.insert(wire.end(), first, first + size);
}

/// A frame in the making. The sizes in its header are filled in when it is sent.
struct DraftFrame {
  binder::FrameHeader header;
  AParcel parcel;
  Wire object_list;

  /// A reference of the sender's to its object `id`, with the entry that goes with it.
  void AddReference(uint64_t id, std::string_view descriptor) {
    const binder::ObjectEntry entry{static_cast<uint32_t>(parcel.position()),
                                    static_cast<uint32_t>(descriptor.size())};
    parcel.Write(binder::kReferencePresent);
    parcel.Write(id << 1);
    parcel.Write(int32_t{12});
    Append(object_list, &entry, sizeof entry);
    Append(object_list, descriptor.data(), descriptor.size());
    object_list.resize(binder::PaddedSize(static_cast<uint32_t>(object_list.size())));
    ++header.object_count;
  }
  void Seal() {
    header.parcel_size = static_cast<uint32_t>(parcel.data().size());
    header.object_list_size = static_cast<uint32_t>(object_list.size());
  }
  void Send(Wire& wire) const {
    Append(wire, &header, sizeof header);
    Append(wire, parcel.data().data(), parcel.data().size());
    Append(wire, object_list.data(), object_list.size());
  }
};

/// A request to the object at `address` that any service takes.
inline void FillRequest(FuzzedDataProvider& input, uint64_t address, DraftFrame& frame) {
  frame.header.address = address;
  binder::WriteInterfaceToken(frame.parcel, IEcho::descriptor);
  switch (input.ConsumeIntegralInRange(0, 3)) {
    case 0: {
      const std::string data = input.ConsumeRandomLengthString(200);
      frame.header.code = IEcho::TRANSACTION_Echo;
      AParcel_writeByteArray(&frame.parcel, reinterpret_cast<const int8_t*>(data.data()),
                             static_cast<int32_t>(data.size()));
      break;
    }
    case 1:
      frame.header.code = IEcho::TRANSACTION_Swap;
      frame.AddReference(input.ConsumeIntegralInRange<uint64_t>(1, 3), IEcho::descriptor);
      break;
    case 2:
      frame.header.code = IEcho::TRANSACTION_Note;
      frame.header.flags = FLAG_ONEWAY;
      frame.parcel.Write(input.ConsumeIntegral<int32_t>());
      break;
    default:
      frame.header.code = input.ConsumeIntegral<uint32_t>();
  }
}

/// Some words of the frame become others.
inline void Spoil(FuzzedDataProvider& input, Wire& wire) {
  constexpr uint32_t kWords[] = {0,  1,   2,      3,        4,          8,
                                 16, 257, 0x8000, 0x100000, 0x7fffffff, UINT32_MAX};
  for (int i = input.ConsumeIntegralInRange(1, 3); i > 0; --i) {
    const size_t at = 4 * input.ConsumeIntegralInRange<size_t>(0, wire.size() / 4 - 1);
    const uint32_t word =
        input.ConsumeBool() ? input.PickValueInArray(kWords) : input.ConsumeIntegral<uint32_t>();
    std::memcpy(&wire[at], &word, sizeof word);
  }
}

}  // namespace kvox::fuzz
