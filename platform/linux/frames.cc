#include "platform/linux/frames.h"

#include <android/binder_ibinder.h>
#include <android/binder_status.h>

namespace kvox::binder {

const char* CheckHeader(const FrameHeader& header) {
  const bool bare = header.parcel_size == 0 && header.object_count == 0;
  if (header.parcel_size > kMaxParcelSize || header.parcel_size % 4 != 0 ||
      header.object_list_size > kMaxObjectListSize) {
    return "a frame of impossible size";
  }
  switch (header.type) {
    case FrameType::kRequest:
      return (header.flags & ~uint32_t{FLAG_ONEWAY}) == 0 ? nullptr : "a request of unknown kind";
    case FrameType::kReply:
      return header.code == STATUS_OK || bare ? nullptr : "a failed reply with a parcel";
    case FrameType::kRelease:
    case FrameType::kRootRequest:
      return bare && header.object_list_size == 0 ? nullptr : "a frame with needless contents";
  }
  return "a frame of unknown type";
}

}  // namespace kvox::binder
