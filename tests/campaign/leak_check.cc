#include "tests/campaign/leak_check.h"

#include <thread>

#include "tests/campaign/resource_trend.h"

namespace kvox::campaign {
namespace {

constexpr Ms kLook{50};

/// The allocator keeps parts of what was freed, more or less of it from one moment to the next.
/// What grows bit by bit is for the soak to find.
constexpr int64_t kMemorySlackKib = 3072;

}  // namespace

/// Audio of everything that was switched on has begun, so that every device is open.
bool LeakCheck::Stands() {
  AudioCheck audio(stage_.sim(), stage_.load());
  if (!stage_.Halt(Stand::kAtReference)) return false;
  const Recovery flow = audio.Await(stage_.Flowing(true), kRecoveryLimit);
  if (!flow.failure.empty()) stage_.findings().Add("audio at the reference: {}", flow.failure);
  return stage_.Healthy();
}

bool LeakCheck::Begin() {
  if (!Stands()) return false;
  before_ = stage_.machine().DaemonResources();
  stage_.Resume();
  return true;
}

bool LeakCheck::IsBack(const ResourceUsage& now) const {
  return now.descriptors <= before_.descriptors && now.threads <= before_.threads &&
         (!MemoryIsMeasurable() || now.memory_kib <= before_.memory_kib + kMemorySlackKib);
}

bool LeakCheck::Check() {
  if (!Stands()) return false;
  const Ms lost_before = stage_.load().Lost();
  const auto begin = Clock::now();
  ResourceUsage now = stage_.machine().DaemonResources();
  while (!IsBack(now) &&
         Clock::now() < begin + kReleaseLimit + stage_.load().Allowance(lost_before)) {
    std::this_thread::sleep_for(kLook);
    now = stage_.machine().DaemonResources();
  }
  if (!IsBack(now)) {
    stage_.findings().Add("something is not given back: {} before, {} now\n{}", before_.Text(),
                          now.Text(), DescribeProcess(stage_.machine().daemon_pid()));
  }
  stage_.Resume();
  return stage_.Healthy();
}

}  // namespace kvox::campaign
