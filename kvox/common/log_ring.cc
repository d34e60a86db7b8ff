#include "kvox/common/log_ring.h"

#include <chrono>
#include <cstring>

#include "kvox/common/fixed_text.h"
#include "kvox/common/kvox_utils.h"

namespace kvox {
namespace {

/// A log that blocks longer must not delay disabling a buffer.
constexpr auto kFlushTimeout = std::chrono::milliseconds(200);

template <size_t Size>
void CopyText(std::array<char, Size>& to, const char* from) {
  const size_t length = strnlen(from, Size - 1);
  std::memcpy(to.data(), from, length);
  to[length] = '\0';
}

}  // namespace

LogRing::LogRing() : slots_(std::make_unique<std::array<Slot, kCapacity>>()) {
  for (Slot& slot : *slots_) slot.sequence.store(0, std::memory_order_relaxed);
}

bool LogRing::Push(LogPriority priority, const char* tag, const char* text) {
  uint64_t tail = tail_.load(std::memory_order_relaxed);
  for (;;) {
    Slot& slot = (*slots_)[tail % kCapacity];
    const uint64_t write_sequence = tail / kCapacity * 2;
    // Acquire: pairs with Pop's release, so the reader is done with the slot's last line.
    if (slot.sequence.load(std::memory_order_acquire) == write_sequence) {
      // Relaxed: the counter only hands out slots; the slot's sequence orders its contents.
      if (!tail_.compare_exchange_weak(tail, tail + 1, std::memory_order_relaxed)) continue;
      slot.line.priority = priority;
      CopyText(slot.line.tag, tag);
      CopyText(slot.line.text, text);
      // Release: pairs with Pop's acquire and hands the line over.
      slot.sequence.store(write_sequence + 1, std::memory_order_release);
      return true;
    }
    const uint64_t now = tail_.load(std::memory_order_relaxed);
    if (now == tail) {  // no thread has moved on: the slot still holds an unread line
      losses_.fetch_add(1, std::memory_order_relaxed);
      return false;
    }
    tail = now;
  }
}

bool LogRing::Pop(Line& line) {
  Slot& slot = (*slots_)[head_ % kCapacity];
  const uint64_t read_sequence = head_ / kCapacity * 2 + 1;
  // Acquire: pairs with Push's release.
  if (slot.sequence.load(std::memory_order_acquire) != read_sequence) return false;
  line = slot.line;
  ++head_;
  // Release: pairs with Push's acquire and gives the slot to the next lap's writer.
  slot.sequence.store(read_sequence + 1, std::memory_order_release);
  return true;
}

uint32_t LogRing::TakeLosses() {
  return losses_.exchange(0, std::memory_order_relaxed);
}

DeferredLog::DeferredLog(LogTarget& destination)
    : destination_(destination), thread_([this] { Run(); }) {}

DeferredLog::~DeferredLog() {
  stopping_.store(true, std::memory_order_relaxed);
  // Release: pairs with Run's acquire, which then sees stopping_.
  wakeups_.fetch_add(1, std::memory_order_release);
  wakeups_.notify_one();
  thread_.join();
}

void DeferredLog::Write(LogPriority priority, const char* tag, const char* line) {
  if (!ring_.Push(priority, tag, line)) return;
  wakeups_.fetch_add(1, std::memory_order_release);
  wakeups_.notify_one();  // no system call while the log thread is awake
}

void DeferredLog::Flush() {
  const uint64_t wanted = ring_.pushed();
  const auto deadline = std::chrono::steady_clock::now() + kFlushTimeout;
  MutexLock lock(drained_mutex_);
  while (drained_ < wanted && drained_changed_.WaitUntil(drained_mutex_, deadline)) {
  }
}

void DeferredLog::Run() {
  SetThreadName("kvox-log");
  for (;;) {
    const uint32_t seen = wakeups_.load(std::memory_order_acquire);
    Drain();
    if (stopping_.load(std::memory_order_relaxed)) break;
    wakeups_.wait(seen, std::memory_order_acquire);
  }
  Drain();
}

void DeferredLog::Drain() {
  LogRing::Line line;
  while (ring_.Pop(line)) {
    destination_.Write(line.priority, line.tag.data(), line.text.data());
    MutexLock lock(drained_mutex_);
    ++drained_;
    drained_changed_.NotifyAll();
  }
  if (const uint32_t losses = ring_.TakeLosses(); losses > 0) {
    const std::string report = FormatText<96>(
        "%u log lines of I/O threads lost: the log could not be written fast enough", losses);
    destination_.Write(LogPriority::kWarning, "kvox", report.c_str());
  }
}

}  // namespace kvox
