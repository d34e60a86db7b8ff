// Checks of fuzz targets.
#pragma once

#include <cstdio>
#include <cstdlib>

namespace kvox::fuzz {

/// Ends the run with a finding unless the property holds. `property` is a sentence that is true for
/// correct code.
inline void Check(bool holds, const char* property) {
  if (holds) return;
  std::fprintf(stderr, "fuzz: it is not true that %s\n", property);
  std::abort();
}

}  // namespace kvox::fuzz
