// Frames of the transport: valid ones for the tests' small interface, and random ones.
#pragma once

#include <fuzzer/FuzzedDataProvider.h>

#include <cstring>
#include <string>
#include <vector>

#include "tests/platform/echo.h"
#include "tests/platform/raw_frame.h"

namespace kvox::fuzz {

using aidl::kvoxtest::IEcho;
using Wire = std::vector<uint8_t>;

inline void Append(Wire& wire, const void* bytes, size_t size) {
  const auto* const first = static_cast<const uint8_t*>(bytes);
  wire.insert(wire.end(), first, first + size);
}

/// A valid request to the object at `address`.
inline binder::Frame AnyRequest(FuzzedDataProvider& input, uint64_t address) {
  binder::Frame frame = binder::RequestTo(address, IEcho::TRANSACTION_Echo, IEcho::descriptor);
  switch (input.ConsumeIntegralInRange(0, 3)) {
    case 0: {
      const std::string data = input.ConsumeRandomLengthString(200);
      binder::Put(&frame, static_cast<int32_t>(data.size()));
      Append(frame.parcel, data.data(), data.size());
      frame.parcel.resize(binder::PaddedSize(static_cast<uint32_t>(frame.parcel.size())));
      break;
    }
    case 1:
      frame.header.code = IEcho::TRANSACTION_Swap;
      binder::PutObject(&frame, input.ConsumeIntegralInRange<uint64_t>(1, 3), IEcho::descriptor);
      break;
    case 2:
      frame.header.code = IEcho::TRANSACTION_Note;
      frame.header.flags = FLAG_ONEWAY;
      binder::Put(&frame, input.ConsumeIntegral<int32_t>());
      break;
    default:
      frame.header.code = input.ConsumeIntegral<uint32_t>();
  }
  return frame;
}

/// Overwrites some words of the frame.
inline void CorruptFrame(FuzzedDataProvider& input, Wire& wire) {
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
