#include "web/server/watcher.h"

#include <algorithm>
#include <chrono>
#include <exception>
#include <utility>

#include "libkvox/errors.h"

namespace kvox::web {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr milliseconds kStep{100};    // between looks for the end
constexpr milliseconds kGather{33};   // blocks, so that dozens of these threads wake seldom
constexpr milliseconds kPause{1000};  // before the next try
constexpr double kLevelPeriod_s = 0.03;

/// Of all watchers at once, for fewer wake-ups of an idle processor.
Clock::time_point NextTick() {
  const auto now = Clock::now().time_since_epoch();
  return Clock::time_point(now - now % kGather + kGather);
}

}  // namespace

Watcher::Watcher(client::Daemon& daemon, std::string point, double keep_s)
    : daemon_(daemon), point_(std::move(point)), keep_s_(keep_s), thread_([this] { Run(); }) {}

Watcher::~Watcher() {
  ending_ = true;
  thread_.join();
}

std::vector<Heard> Watcher::After(uint64_t sequence, size_t bytes) const {
  std::vector<Heard> found;
  const MutexLock lock(mutex_);
  const uint64_t first = heard_.empty() ? last_ + 1 : heard_.front().sequence;
  size_t sum = 0;
  for (uint64_t next = std::max(sequence + 1, first); next <= last_; ++next) {
    const Heard& heard = heard_[next - first];
    sum += heard.block->data.size();
    if (!found.empty() && sum > bytes) break;
    found.push_back(heard);
  }
  return found;
}

uint64_t Watcher::last() const {
  const MutexLock lock(mutex_);
  return last_;
}

uint64_t Watcher::Behind(uint64_t sequence) const {
  const MutexLock lock(mutex_);
  if (heard_.empty() || last_ <= sequence) return 0;
  const uint64_t first = heard_.front().sequence;
  const Heard& next = heard_[std::max(sequence + 1, first) - first];
  const Heard& newest = heard_.back();
  return (newest.position - next.position) / newest.block->format.sample_rate;
}

Levels Watcher::levels() const {
  const MutexLock lock(mutex_);
  return levels_;
}

std::string Watcher::error() const {
  const MutexLock lock(mutex_);
  return error_;
}

void Watcher::Run() {
  while (!ending_) {
    try {
      Receive();
    } catch (const client::Failure& failure) {
      Fail(failure.what());
      // To begin anew would switch on what somebody has switched off.
      over_ = failure.status() == client::kGaps && last() > 0;
      if (over_) return;
    } catch (const std::exception& failure) {
      Fail(failure.what());
    }
    for (milliseconds waited{0}; waited < kPause && !ending_; waited += kStep) {
      std::this_thread::sleep_for(kStep);
    }
  }
}

void Watcher::Receive() {
  client::Receiver receiver(daemon_, point_, {.causes = false});
  uint64_t before_ns = last_ns_;
  while (!ending_) {
    auto block = receiver.Next(milliseconds(0));
    if (!block) {
      std::this_thread::sleep_until(NextTick());
      continue;
    }
    last_ns_ = block->arrived_ns;
    if (const uint64_t begin_ns = std::exchange(before_ns, 0)) {
      MarkMissing(begin_ns, *block);
    }
    Add(std::move(*block));
  }
}

/// Of the first block of a receiver that is not the first one.
void Watcher::MarkMissing(uint64_t before_ns, client::Block& block) {
  const uint64_t passed_ns = block.arrived_ns - std::min(before_ns, block.arrived_ns);
  const uint64_t frames = passed_ns / 1000 * block.format.sample_rate / 1'000'000;
  block.missing = frames - std::min(frames, block.frames());
  block.estimated = true;
}

void Watcher::Add(client::Block block) {
  meter_.Add(block);
  missing_ += block.missing;
  position_ += block.missing;
  const uint64_t position = position_;
  const uint64_t frames = block.frames();
  const uint32_t rate = block.format.sample_rate;
  position_ += frames;
  auto kept = std::make_shared<const client::Block>(std::move(block));
  const bool levels_are_due =
      static_cast<double>(meter_.frames()) >= kLevelPeriod_s * meter_.sample_rate();

  const MutexLock lock(mutex_);
  error_.clear();
  heard_.push_back({.sequence = ++last_, .position = position, .block = std::move(kept)});
  const auto keep = static_cast<uint64_t>(keep_s_ * rate);
  while (heard_.size() > 1 && heard_.front().position + keep < position_) heard_.pop_front();
  if (levels_are_due) {
    levels_ = {
        .sequence = last_, .channels = meter_.Take(), .missing = missing_, .sample_rate = rate};
  }
}

void Watcher::Fail(const std::string& error) {
  const MutexLock lock(mutex_);
  error_ = error;
}

}  // namespace kvox::web
