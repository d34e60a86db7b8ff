// The bytes between two processes: one greeting each way, then frames. docs/transport.md has them
// as tables; all words are little-endian.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>

#include "platform/linux/limits.h"

namespace kvox::binder {

static_assert(std::endian::native == std::endian::little, "frames are sent as they are in memory");

inline constexpr uint32_t kTransportMagic = 0x78766b62;  // "bkvx"
inline constexpr uint32_t kTransportVersion = 1;

/// In an address: the object is the receiver's, not the sender's.
inline constexpr uint64_t kReceiversObject = 1;

enum class AdmitResult : uint32_t {
  kAdmitted = 0,
  kTooManyClients = 1,
  kTooManyOfProcess = 2,
  kTooManyOfUser = 3,
};

/// First bytes of a client.
struct ClientGreeting {
  uint32_t magic = kTransportMagic;
  uint32_t version = kTransportVersion;
};
static_assert(sizeof(ClientGreeting) == 8);

/// First bytes of a service, followed by the descriptor of its object.
struct ServiceGreeting {
  uint32_t magic = kTransportMagic;
  uint32_t version = kTransportVersion;
  AdmitResult result = AdmitResult::kAdmitted;
  uint32_t descriptor_size = 0;
  uint64_t address = 0;
};
static_assert(sizeof(ServiceGreeting) == 24 && offsetof(ServiceGreeting, address) == 16);

enum class FrameType : uint32_t { kRequest = 1, kReply = 2, kRelease = 3, kRootRequest = 4 };

/// Every frame starts with this; fields that its type does not use are 0.
struct FrameHeader {
  FrameType type = FrameType::kRequest;
  uint32_t code = 0;              // request: transaction code; reply: status
  uint64_t call = 0;              // request, root request: the sender's number; reply: the same;
                                  // release: how many references
  uint64_t address = 0;           // request: an object of the receiver's; release: likewise
  uint32_t flags = 0;             // request: FLAG_ONEWAY or 0
  uint32_t object_count = 0;      // request, reply: entries of the object list
  uint32_t parcel_size = 0;       // request, reply: bytes of the parcel, which comes first
  uint32_t object_list_size = 0;  // request, reply: bytes of the object list after it

  size_t FrameSize() const { return sizeof(FrameHeader) + parcel_size + object_list_size; }
};
static_assert(sizeof(FrameHeader) == 40 && offsetof(FrameHeader, call) == 8 &&
              offsetof(FrameHeader, flags) == 24 && offsetof(FrameHeader, parcel_size) == 32);

/// What is wrong with a header, or null. Any thread.
const char* CheckHeader(const FrameHeader& header);

inline constexpr size_t kMaxFrameSize = sizeof(FrameHeader) + kMaxParcelSize + kMaxObjectListSize;

/// One reference of the parcel, followed by its object's descriptor, padded to 4 bytes.
struct ObjectEntry {
  uint32_t position = 0;  // of the reference in the parcel
  uint32_t descriptor_size = 0;
};
static_assert(sizeof(ObjectEntry) == 8);

/// Layout of a reference in a parcel: int32 1, address, int32 stability; null is int32 0, int32 0.
inline constexpr int32_t kReferencePresent = 1;
inline constexpr uint32_t kReferenceAddressOffset = 4;
inline constexpr uint32_t kReferenceSize = 16;

constexpr uint32_t PaddedSize(uint32_t size) {
  return (size + 3) & ~3u;
}

}  // namespace kvox::binder
