#include "kvox/common/channel_runs.h"

#include <cstring>
#include <type_traits>

namespace kvox {
namespace {

/// With a size that the compiler knows, a sample is one load and one store.
template <typename Size>
size_t InterleaveGroups(std::span<const std::byte> in, const ChannelRuns& runs, Size bytes,
                        std::span<std::byte> out) {
  const uint64_t group = runs.GroupSize();
  size_t at = 0;
  for (; in.size() - at >= group; at += static_cast<size_t>(group)) {
    const std::byte* from = in.data() + at;
    for (size_t channel = 0; channel < runs.channels; ++channel) {
      std::byte* to = out.data() + at + channel * bytes();
      for (size_t sample = 0; sample < runs.samples; ++sample) {
        std::memcpy(to, from, bytes());
        from += bytes();
        to += runs.channels * bytes();
      }
    }
  }
  return at;
}

template <size_t Bytes>
using Fixed = std::integral_constant<size_t, Bytes>;

}  // namespace

size_t InterleaveRuns(std::span<const std::byte> in, const ChannelRuns& runs,
                      std::span<std::byte> out) {
  switch (runs.bytes_per_sample) {
    case 2:
      return InterleaveGroups(in, runs, Fixed<2>(), out);
    case 4:
      return InterleaveGroups(in, runs, Fixed<4>(), out);
    default:
      return InterleaveGroups(
          in, runs, [&runs] { return runs.bytes_per_sample; }, out);
  }
}

}  // namespace kvox
