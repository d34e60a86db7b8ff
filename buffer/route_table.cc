#include "buffer/route_table.h"

#include <algorithm>
#include <chrono>
#include <iterator>
#include <thread>
#include <utility>

namespace kvox {
namespace {

constexpr auto kGracePoll = std::chrono::microseconds(100);

/// The publisher whose table this thread is using.
thread_local const RoutePublisher* reading = nullptr;

}  // namespace

// The reader announces the table it is about to use and then checks that it is still the published
// one; the publisher replaces it and then checks whether it is announced. Both are sequentially
// consistent, so at least one of the two sees the other.

RoutePublisher::RoutePublisher(std::function<void()> nudge)
    : nudge_(std::move(nudge)), published_(new RouteTable) {}

RoutePublisher::~RoutePublisher() {
  delete published_.load();
}

void RoutePublisher::Publish(std::unique_ptr<const RouteTable> table) {
  std::unique_ptr<const RouteTable> replaced(published_.exchange(table.release()));
  MutexLock lock(mutex_);
  retired_.push_back(std::move(replaced));
}

void RoutePublisher::WaitForGracePeriod() {
  while (!DestroyUnused() && reading != this) {
    nudge_();
    std::this_thread::sleep_for(kGracePoll);
  }
}

bool RoutePublisher::DestroyUnused() {
  std::vector<std::unique_ptr<const RouteTable>> unused;  // destroyed after the lock is released
  MutexLock lock(mutex_);
  const RouteTable* const in_use = in_use_.load();
  const auto first_unused =
      std::partition(retired_.begin(), retired_.end(),
                     [in_use](const auto& table) { return table.get() == in_use; });
  unused.assign(std::make_move_iterator(first_unused), std::make_move_iterator(retired_.end()));
  retired_.erase(first_unused, retired_.end());
  return retired_.empty();
}

RoutePublisher::Use::Use(RoutePublisher& publisher) : publisher_(publisher) {
  do {
    table_ = publisher_.published_.load();
    publisher_.in_use_.store(table_);
  } while (publisher_.published_.load() != table_);
  reading = &publisher_;
}

RoutePublisher::Use::~Use() {
  reading = nullptr;
  // Release: pairs with the load in DestroyUnused, so destruction comes after our last access.
  publisher_.in_use_.store(nullptr, std::memory_order_release);
}

bool RoutePublisher::Superseded() const {
  // The reader itself wrote in_use_, so a relaxed load sees it.
  return published_.load() != in_use_.load(std::memory_order_relaxed);
}

}  // namespace kvox
