#include "tests/campaign/crew.h"

#include <algorithm>

namespace kvox::campaign {

Crew::~Crew() {
  Stop();
}

void Crew::Start(std::unique_ptr<Worker> worker, unsigned seed) {
  auto member = std::make_unique<Member>();
  member->worker = std::move(worker);
  Member& started = *member;
  const std::lock_guard lock(mutex_);
  members_.push_back(std::move(member));
  started.thread = std::thread([this, &started, seed] { Work(started, seed); });
}

void Crew::Work(Member& member, unsigned seed) {
  std::mt19937 random(seed);
  while (!shared_.stopping) {
    Attend(member);
    if (shared_.stopping) return;
    member.worker->Turn(random);
    std::unique_lock lock(mutex_);
    changed_.wait_for(lock, member.worker->Pause(),
                      [&] { return halting_ || shared_.stopping.load(); });
  }
}

void Crew::Attend(Member& member) {
  std::unique_lock lock(mutex_);
  while (halting_ && !shared_.stopping) {
    if (member.standing_for == halt_) {
      changed_.wait(lock);
      continue;
    }
    const unsigned halt = halt_;
    const bool to_reference = stand_ == Stand::kAtReference;
    lock.unlock();
    if (to_reference) member.worker->ToReference();
    lock.lock();
    member.standing_for = halt;
    changed_.notify_all();
  }
}

std::string Crew::Halt(Stand stand, Ms limit) {
  std::unique_lock lock(mutex_);
  halting_ = true;
  stand_ = stand;
  ++halt_;
  changed_.notify_all();
  const auto stands = [&](const auto& member) { return member->standing_for == halt_; };
  const bool all = changed_.wait_for(lock, limit, [&] {
    return std::all_of(members_.begin(), members_.end(), stands) || shared_.stopping.load();
  });
  if (all) return "";
  std::string busy;
  for (const auto& member : members_) {
    if (stands(member)) continue;
    const std::string pending = member->worker->Pending();
    busy += (busy.empty() ? "" : "; ") + member->worker->name() + " waits for " +
            (pending.empty() ? "an answer" : pending);
  }
  return busy;
}

void Crew::Resume() {
  const std::lock_guard lock(mutex_);
  halting_ = false;
  changed_.notify_all();
}

void Crew::Stop() {
  {
    const std::lock_guard lock(mutex_);
    shared_.stopping = true;
    changed_.notify_all();
  }
  for (const auto& member : members_) {
    if (member->thread.joinable()) member->thread.join();
  }
}

}  // namespace kvox::campaign
