#include "web/server/hub.h"

#include <chrono>
#include <utility>

namespace kvox::web {
namespace {

constexpr std::chrono::seconds kLongestCall{5};
constexpr size_t kCommandsAtOnce = 4;
constexpr int kMostCommands = 64;   // of all pages
constexpr size_t kMostPoints = 64;  // as many clients of one process has the daemon
constexpr std::chrono::milliseconds kLongestLastCall{500};

}  // namespace

Hub::Hub(Options options, std::function<void()> wake)
    : options_(std::move(options)),
      wake_(std::move(wake)),
      daemon_(kLongestCall),
      commands_(kCommandsAtOnce),
      leaving_(1),
      keeper_(
          {.directory = options_.kept, .rules = options_.rules, .client = options_.client},
          [this] { return flight_.LogAfter(0); }, wake_, ending_),
      flight_([this](News news) {
        keeper_.Look(Watchers(), news.restarted, Keeper::Clock::now());
        if (news.any) wake_();
      }) {}

/// All watchers end at once: one after the other would take minutes where the daemon hangs.
Hub::~Hub() {
  ending_ = true;
  daemon_.set_wait(kLongestLastCall);
  const MutexLock lock(mutex_);
  for (const auto& [point, entry] : entries_) {
    if (const auto watcher = entry.watcher.lock()) watcher->End();
  }
}

Watched Hub::Watch(const std::string& point) {
  const MutexLock lock(mutex_);
  std::erase_if(entries_, [&](const auto& entry) {
    return entry.first != point && entry.second.watcher.expired();
  });
  if (entries_.size() >= kMostPoints && !entries_.contains(point)) return {};
  Entry& entry = entries_[point];
  std::shared_ptr<Watcher> watcher = entry.watcher.lock();
  if (!watcher || watcher->over()) {
    watcher = {new Watcher(daemon_, point, options_.keep_s),
               [this](Watcher* ended) { leaving_.Add([ended] { delete ended; }); }};
    entry = {.number = ++last_number_, .watcher = watcher};
  }
  return {entry.number, std::move(watcher)};
}

Keeper::Watchers Hub::Watchers() const {
  Keeper::Watchers watchers;
  const MutexLock lock(mutex_);
  for (const auto& [point, entry] : entries_) {
    if (auto watcher = entry.watcher.lock()) watchers.push_back(std::move(watcher));
  }
  return watchers;
}

bool Hub::TakePlace() {
  return ++running_ <= kMostCommands || (--running_, false);
}

void Hub::Do(WorkQueue::Work work) {
  commands_.Add([this, work = std::move(work)] {
    work();
    --running_;
    wake_();
  });
}

}  // namespace kvox::web
