// Byte streams put together and fed piece by piece.
#pragma once

#include <algorithm>
#include <cstddef>
#include <span>
#include <vector>

namespace kvox::sim {

using Bytes = std::vector<std::byte>;

inline Bytes operator+(Bytes left, const Bytes& right) {
  left.insert(left.end(), right.begin(), right.end());
  return left;
}

template <typename Consumer>
void FeedInPieces(Consumer& consumer, const Bytes& stream, size_t piece) {
  for (size_t at = 0; at < stream.size(); at += piece) {
    consumer.Feed(std::span(stream).subspan(at, std::min(piece, stream.size() - at)));
  }
}

}  // namespace kvox::sim
