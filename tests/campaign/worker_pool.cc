#include "tests/campaign/worker_pool.h"

namespace kvox::campaign {

void WorkerPool::Start(std::unique_ptr<Worker> worker, unsigned seed) {
  members_.push_back(std::make_unique<Member>());
  Member& member = *members_.back();
  member.worker = std::move(worker);
  member.thread = std::thread([this, &member, seed] { Work(member, seed); });
}

void WorkerPool::Work(Member& member, unsigned seed) {
  std::mt19937 random(seed);
  for (;;) {
    TakePauses(member);
    if (run_.stopping) return;
    member.worker->Step(random);
    const auto next = Clock::now() + member.worker->Interval();
    MutexLock lock(mutex_);
    while (!pausing_ && !run_.stopping && changed_.WaitUntil(mutex_, next)) {
    }
  }
}

void WorkerPool::TakePauses(Member& member) {
  MutexLock lock(mutex_);
  while (pausing_ && !run_.stopping) {
    if (member.paused_by == pause_) {
      changed_.Wait(mutex_);
      continue;
    }
    const unsigned pause = pause_;
    const bool to_baseline = mode_ == PauseMode::kAtBaseline;
    lock.Unlock();
    if (to_baseline) member.worker->RestoreBaseline();
    lock.Lock();
    member.paused_by = pause;
    changed_.NotifyAll();
  }
}

std::string WorkerPool::Busy() const {
  std::string busy;
  for (const auto& member : members_) {
    if (member->paused_by == pause_) continue;
    const RetryingClient& client = member->worker->client();
    const std::string pending = client.Pending();
    busy += (busy.empty() ? "" : "; ") + client.name() + " waits for " +
            (pending.empty() ? "a reply" : pending);
  }
  return busy;
}

std::string WorkerPool::Pause(PauseMode mode, Ms limit) {
  const auto deadline = Clock::now() + limit;
  MutexLock lock(mutex_);
  pausing_ = true;
  mode_ = mode;
  ++pause_;
  changed_.NotifyAll();
  while (!run_.stopping) {
    const std::string busy = Busy();
    if (busy.empty() || !changed_.WaitUntil(mutex_, deadline)) return Busy();
  }
  return "";
}

void WorkerPool::Resume() {
  MutexLock lock(mutex_);
  pausing_ = false;
  changed_.NotifyAll();
}

void WorkerPool::Stop() {
  {
    MutexLock lock(mutex_);
    run_.stopping = true;
    changed_.NotifyAll();
  }
  for (const auto& member : members_) {
    if (member->thread.joinable()) member->thread.join();
  }
}

}  // namespace kvox::campaign
