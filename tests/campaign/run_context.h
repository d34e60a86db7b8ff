// State shared by the parts of a run.
#pragma once

#include <fmt/format.h>

#include <atomic>
#include <string>
#include <utility>
#include <vector>

#include "kvox/common/mutex.h"
#include "tests/campaign/daemon_client.h"
#include "tests/campaign/expected_graph.h"
#include "tests/campaign/run_conditions.h"

namespace kvox::campaign {

/// The failures of a run. The first one ends it. Any thread.
class FailureLog {
 public:
  template <typename... Arguments>
  void Add(fmt::format_string<Arguments...> format, Arguments&&... arguments) {
    std::string text = fmt::format(format, std::forward<Arguments>(arguments)...);
    MutexLock lock(mutex_);
    if (texts_.size() < kMost) texts_.push_back(std::move(text));
  }
  bool any() const { return !all().empty(); }
  std::vector<std::string> all() const {
    MutexLock lock(mutex_);
    return texts_;
  }

 private:
  static constexpr size_t kMost = 50;

  mutable Mutex mutex_;
  std::vector<std::string> texts_ GUARDED_BY(mutex_);
};

/// The expected graph, for several threads.
class SharedGraph {
 public:
  template <typename Change>
  void Update(const Change& change) {
    MutexLock lock(mutex_);
    change(graph_);
  }
  ExpectedGraph Copy() const {
    MutexLock lock(mutex_);
    return graph_;
  }

 private:
  mutable Mutex mutex_;
  ExpectedGraph graph_ GUARDED_BY(mutex_);
};

/// Outlives all that use it. Any thread.
struct RunContext {
  DaemonClient& daemon;
  FaultClock faults = {};
  LagMeter lag = {};
  FailureLog failures = {};
  SharedGraph graph = {};
  std::atomic<bool> stopping = false;
  std::atomic<uint64_t> commands = 0;
  std::atomic<uint64_t> refused = 0;  // when that was to be expected
  std::atomic<uint64_t> starved = 0;  // refused because the machine was too busy
};

}  // namespace kvox::campaign
