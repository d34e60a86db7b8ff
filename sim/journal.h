// What the simulator tells its user while it runs: one line for each change, with the seconds since
// the start. Quiet unless it was given somewhere to write. One thread.
#pragma once

#include <fmt/format.h>

#include <cstdio>
#include <utility>

#include "kvox/common/kvox_utils.h"
#include "sim/print.h"

namespace kvox::sim {

class Journal {
 public:
  Journal() = default;
  explicit Journal(FILE* file) : file_(file) {}

  template <typename... Args>
  void Say(fmt::format_string<Args...> format, Args&&... args) {
    if (file_ == nullptr) return;
    const auto elapsed = static_cast<double>(GetTimestampNs() - start_ns_);
    Print(file_, "{:9.3f}  {}\n", elapsed / 1e9, fmt::format(format, std::forward<Args>(args)...));
  }

 private:
  FILE* const file_ = nullptr;
  const uint64_t start_ns_ = GetTimestampNs();
};

}  // namespace kvox::sim
