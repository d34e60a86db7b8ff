#include "kvox/flight/flight_log.h"

#include <fcntl.h>
#include <unistd.h>

#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <utility>
#include <vector>

#include "kvox/common/fixed_text.h"
#include "kvox/common/kvox_utils.h"
#include "kvox/common/log.h"
#include "kvox/common/unique_fd.h"

namespace kvox::flight {
namespace {

constexpr auto kRelaxed = std::memory_order_relaxed;
constexpr auto kSamplePause = std::chrono::milliseconds(100);
constexpr int64_t kClockStepNs = 10'000'000;

thread_local uint32_t caller = 0;

using NameBytes = std::array<uint64_t, std::tuple_size_v<NameWords>>;

NameBytes BytesOf(const std::string& name) {
  std::array<char, kNameSize> bytes = {};
  name.copy(bytes.data(), kNameSize - 1);
  return std::bit_cast<NameBytes>(bytes);
}

bool HasName(const NameWords& words, const NameBytes& name) {
  for (size_t i = 0; i < words.size(); ++i) {
    if (words[i].load(kRelaxed) != name[i]) return false;
  }
  return true;
}

void SetName(NameWords& words, const NameBytes& name) {
  for (size_t i = 0; i < words.size(); ++i) words[i].store(name[i], kRelaxed);
}

/// All words before the records: those are valid only up to the number of packets.
void Clear(StreamSlot& slot) {
  auto* const words = reinterpret_cast<Word*>(&slot);
  for (size_t i = 0; i < offsetof(StreamSlot, records) / sizeof(Word); ++i)
    words[i].store(0, kRelaxed);
}

/// For how long a thread of this process has waited for a processor; none if there is no such
/// thread, or the kernel does not say.
std::optional<uint64_t> WaitedNs(uint64_t thread) {
  char path[64];
  snprintf(path, sizeof path, "/proc/self/task/%" PRIu64 "/schedstat", thread);
  const UniqueFd fd(open(path, O_RDONLY | O_CLOEXEC));
  char text[96];
  const ssize_t size = fd.valid() ? read(fd.get(), text, sizeof text - 1) : 0;
  if (size <= 0) return std::nullopt;
  text[size] = '\0';
  uint64_t ran_ns = 0;
  uint64_t waited_ns = 0;
  if (sscanf(text, "%" SCNu64 " %" SCNu64, &ran_ns, &waited_ns) != 2) return std::nullopt;
  return waited_ns;
}

}  // namespace

CallerScope::CallerScope(uint32_t pid) : before_(std::exchange(caller, pid)) {}

CallerScope::~CallerScope() {
  caller = before_;
}

StreamSlot* FlightLog::OpenStream(const std::string& name) {
  MutexLock lock(mutex_);
  if (mapping_.file() == nullptr) return nullptr;
  Place* const place = ChoosePlace(name);
  if (place == nullptr) {
    Refuse(name, "all of its places are in use");
    return nullptr;
  }
  StreamSlot& slot = SlotOf(*place);
  if (const int error = mapping_.Provide(slot); error != 0) {
    Refuse(name, ErrorText(error).c_str());
    return nullptr;
  }
  if (place->name != name) {
    Clear(slot);
    SetName(slot.name, BytesOf(name));
  }
  *place = {.name = name, .since_ns = GetTimestampNs(), .open = true};
  slot.since_ns.store(place->since_ns, kRelaxed);
  ++open_count_;
  changed_.NotifyAll();
  return &slot;
}

/// The buffer's own, else one that is free, else the one that has been closed for longest. Null
/// when all are open.
FlightLog::Place* FlightLog::ChoosePlace(const std::string& name) {
  Place* chosen = nullptr;
  for (Place& place : places_) {
    if (place.open) continue;
    if (place.name == name) return &place;
    if (chosen == nullptr || place.since_ns < chosen->since_ns) chosen = &place;
  }
  return chosen;
}

StreamSlot& FlightLog::SlotOf(const Place& place) {
  return mapping_.file()->streams[static_cast<size_t>(&place - places_.data())];
}

void FlightLog::Refuse(const std::string& name, const char* cause) {
  Word& count = mapping_.file()->header.unrecorded;
  count.store(count.load(kRelaxed) + 1, kRelaxed);
  if (refused_) return;
  refused_ = true;
  LogWarning("The flight log has no place for %s: %s; its packets are not recorded", name.c_str(),
             cause);
}

void FlightLog::CloseStream(StreamSlot* slot) {
  if (slot == nullptr) return;
  MutexLock lock(mutex_);
  Place& place = places_[static_cast<size_t>(slot - mapping_.file()->streams.data())];
  place = {.name = place.name, .since_ns = GetTimestampNs()};
  --open_count_;
  slot->thread.store(0, kRelaxed);
  mapping_.Release(*slot);
}

InjectLog FlightLog::OpenInject(const std::string& name) {
  const NameBytes bytes = BytesOf(name);
  MutexLock lock(mutex_);
  for (size_t i = 0; mapping_.file() != nullptr && i < kNoInject; ++i) {
    InjectSlot& slot = mapping_.file()->injects[i];
    const bool free = slot.name[0].load(kRelaxed) == 0;
    if (!free && !HasName(slot.name, bytes)) continue;
    if (free) SetName(slot.name, bytes);
    return InjectLog(&slot, static_cast<uint8_t>(i));
  }
  return InjectLog(nullptr, kNoInject);
}

void FlightLog::Record(const Event& event) {
  EventRecord record = {};
  record.at_ns = GetTimestampNs();
  record.duration_ns = event.duration_ns;
  record.pid = caller;
  record.status = event.status;
  record.kind = event.kind;
  event.subject.copy(record.subject.data(), record.subject.size() - 1);
  event.text.copy(record.text.data(), record.text.size() - 1);
  Append(record);
}

void FlightLog::Append(const EventRecord& record) {
  File* const file = mapping_.file();
  if (file == nullptr) return;
  MutexLock lock(events_mutex_);
  const uint64_t sequence = file->header.events.load(kRelaxed);
  const auto words = Sealed(record, sequence);
  auto& place = file->events[sequence % kEvents];
  for (size_t i = 0; i < words.size(); ++i) place[i].store(words[i], kRelaxed);
  file->header.events.store(sequence + 1, kRelaxed);
}

bool FlightLog::WaitToSample() {
  const auto until = std::chrono::steady_clock::now() + kSamplePause;
  MutexLock lock(mutex_);
  while (!stopping_ && changed_.WaitUntil(mutex_, until)) {
  }
  while (!stopping_ && open_count_ == 0) changed_.Wait(mutex_);
  return !stopping_;
}

void FlightLog::Stop() {
  MutexLock lock(mutex_);
  stopping_ = true;
  changed_.NotifyAll();
}

void FlightLog::Sample() {
  if (mapping_.file() == nullptr) return;
  const uint64_t now_ns = GetTimestampNs();
  SampleClock(now_ns);
  struct Waited {
    StreamSlot* slot;
    uint64_t thread;
    std::optional<uint64_t> ns = std::nullopt;
  };
  std::vector<Waited> all;
  std::vector<std::string> ended;
  {
    MutexLock lock(mutex_);
    for (Place& place : places_) {
      if (!place.open) continue;
      const uint64_t thread = SlotOf(place).thread.load(kRelaxed);
      if (thread != 0) all.push_back({&SlotOf(place), thread});
      if (std::exchange(place.runs, thread != 0) && thread == 0) ended.push_back(place.name);
    }
  }
  for (const std::string& name : ended) {
    Record({.kind = EventKind::kStream, .subject = name, .text = kGaveUp});
  }
  for (Waited& one : all) one.ns = WaitedNs(one.thread);
  MutexLock lock(mutex_);  // no slot is given away while one is written
  for (const Waited& one : all) {
    if (!one.ns || one.slot->thread.load(kRelaxed) != one.thread) continue;
    const uint64_t sequence = one.slot->samples.load(kRelaxed);
    SchedulingSample& sample = one.slot->scheduling[sequence % kSamples];
    sample.at_ns.store(now_ns, kRelaxed);
    sample.waited_ns.store(*one.ns, kRelaxed);
    one.slot->samples.store(sequence + 1, kRelaxed);
  }
}

/// Times before a step of the wall clock keep the offset that held then: an event carries it.
void FlightLog::SampleClock(uint64_t now_ns) {
  const uint64_t offset_ns = WallClockNs() - now_ns;
  Word& known = mapping_.file()->header.wall_offset_ns;
  const uint64_t before_ns = known.exchange(offset_ns, kRelaxed);
  const auto step_ns = static_cast<int64_t>(offset_ns - before_ns);
  if (std::abs(step_ns) < kClockStepNs || before_ns == 0) return;
  EventRecord record = {};
  record.at_ns = now_ns;
  record.duration_ns = before_ns;
  record.kind = EventKind::kClock;
  Append(record);
}

}  // namespace kvox::flight
