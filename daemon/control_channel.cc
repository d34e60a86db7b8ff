#include "daemon/control_channel.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <span>
#include <thread>
#include <utility>

#include "kvox/common/log.h"

namespace kvox {
namespace {

constexpr int kOpenTests = 5;
constexpr int kOpenPauseMs = 100;
constexpr auto kReplyBudget = std::chrono::milliseconds(500);

/// The rest of a partial record follows at once or never.
constexpr auto kPartialRecordTimeout = std::chrono::milliseconds(20);

/// How many replies to earlier commands may be there before a device counts as one that never stops
/// sending: then each read costs a pause. The log gets a line for the first few only.
constexpr uint32_t kMostStaleAtOnce = 4096;
constexpr uint32_t kMostStaleLines = 32;
constexpr auto kPause = std::chrono::milliseconds(1);

constexpr char kSender[] = "SendKvoxCommand";

void LogWrongSize(ssize_t actual, uint16_t opcode, size_t expected) {
  LogError("wrong data sz %d != %d for opcode 0x%x", static_cast<int>(actual),
           static_cast<int>(expected), opcode);
}

/// What one read has brought is the reply, whatever its size field says.
bool IsWholeReply(std::span<const std::byte> bytes, uint16_t opcode, size_t size) {
  CMD_HDR header;
  if (bytes.size() != size || size < sizeof header) return false;
  std::memcpy(&header, bytes.data(), sizeof header);
  return header.opcode == opcode;
}

}  // namespace

/// Opening or closing the device, which takes priority over waiting commands; with a plain mutex it
/// could wait for all of them.
class ControlChannel::DeviceChange {
 public:
  explicit DeviceChange(ControlChannel& channel) : channel_(channel) {
    channel_.device_changes_.fetch_add(1);
  }
  ~DeviceChange() {
    MutexLock lock(channel_.lock_);
    channel_.device_changes_.fetch_sub(1);
    channel_.device_changed_.NotifyAll();
  }
  DeviceChange(const DeviceChange&) = delete;
  DeviceChange& operator=(const DeviceChange&) = delete;

 private:
  ControlChannel& channel_;
};

ControlChannel::ControlChannel(std::string device_path) : device_path_(std::move(device_path)) {}

ControlChannel::~ControlChannel() {
  Close();
}

void ControlChannel::Open() {
  const DeviceChange change(*this);
  MutexLock lock(lock_);
  openKvoxControl();
}

void ControlChannel::Close() {
  const DeviceChange change(*this);
  closing_.Signal();
  MutexLock lock(lock_);
  CloseLocked();
  closing_.Clear();
}

void ControlChannel::CloseLocked() {
  if (fd_ >= 0) close(fd_);
  fd_ = -1;
  open_.store(false, std::memory_order_relaxed);
  stream_.DropPartial();
  replies_.clear();
}

void ControlChannel::openKvoxControl() {
  CloseLocked();
  const char* const path = device_path_.c_str();
  for (int test = 1; access(path, F_OK) != 0; ++test) {
    if (test == kOpenTests) {
      LogError("Cannot find %s\n", path);
      fprintf(stderr, "ERROR: Cannot find %s\n", path);
      return;
    }
    pollfd closing = {.fd = closing_.fd(), .events = POLLIN, .revents = 0};
    if (poll(&closing, 1, kOpenPauseMs) > 0) return;
  }
  fd_ = open(path, O_RDWR | O_NONBLOCK | O_CLOEXEC | O_NOCTTY);
  if (fd_ < 0) {
    const std::string reason = std::strerror(errno);
    LogError("Failed to open %s: %s", path, reason.c_str());
    fprintf(stderr, "ERROR: Failed to open %s: %s", path, reason.c_str());
    return;
  }
  open_.store(true, std::memory_order_relaxed);
  LogInfo("Opened %s\n", path);
}

int32_t ControlChannel::Exchange(uint16_t opcode, CMD_HDR* record, size_t size) {
  LogInfo("%s: send opcode 0x%x\n", kSender, opcode);
  MutexLock lock(lock_);
  while (device_changes_.load() > 0) device_changed_.Wait(lock_);
  record->opcode = opcode;
  record->seq = static_cast<uint8_t>(commands_sent_++);
  record->reserved = 0;
  record->size = static_cast<uint16_t>(size);
  if (!WriteRecord(opcode, record, size)) {
    LogError("%s: Trying again\n", kSender);
    openKvoxControl();
    if (fd_ < 0 || !WriteRecord(opcode, record, size)) return -1;
  }
  return WaitForReply(opcode, record, size);
}

bool ControlChannel::WriteRecord(uint16_t opcode, const CMD_HDR* record, size_t size) {
  const ssize_t written = write(fd_, record, size);
  if (written == static_cast<ssize_t>(size)) return true;
  LogError("%s: Error sending opcode 0x%x, status %ld, expected %lu", kSender, opcode,
           static_cast<long>(written), static_cast<unsigned long>(size));
  return false;
}

int32_t ControlChannel::WaitForReply(uint16_t opcode, CMD_HDR* record, size_t size) {
  const auto deadline = Clock::now() + kReplyBudget;
  int32_t result = 0;
  stale_ = 0;
  in_vain_ = 0;
  while (result == 0) {
    if (TakeReply(opcode, record, size)) break;
    if (stale_ > kMostStaleAtOnce || in_vain_ > 1) std::this_thread::sleep_for(kPause);
    const auto now = Clock::now();
    if (now >= deadline) {
      DropPartial(opcode, size);
      LogWarning("%s: timeout for opcode 0x%x", "waitForKvoxCommandResponse", opcode);
      return -1;
    }
    switch (WaitReadable(stream_.partial() ? std::min(deadline, now + kPartialRecordTimeout)
                                           : deadline)) {
      case Wait::kReadable:
        result = ReadReplies(opcode, size);
        break;
      case Wait::kInterrupted:
        break;
      case Wait::kFailed:
        result = -errno;
        break;
      case Wait::kClosing:
        result = -1;
        break;
      case Wait::kHangUp:
        LogError("%s: hang-up for opcode 0x%x", "waitForKvoxCommandResponse", opcode);
        result = -1;
        break;
      case Wait::kQuiet:
        DropPartial(opcode, size);
        break;
    }
  }
  if (stale_ > kMostStaleLines) LogWarning("%u stale replies for opcode 0x%x", stale_, opcode);
  if (result == 0) {
    result = record->status;
    if (result != 0) LogError("KVO opcode 0x%x reply status %d", opcode, result);
  }
  LogInfo("KVO reply OK");
  return result;
}

void ControlChannel::DropPartial(uint16_t opcode, size_t size) {
  const size_t partial = stream_.DropPartial();
  if (partial > 0) LogWrongSize(static_cast<ssize_t>(partial), opcode, size);
}

ControlChannel::Wait ControlChannel::WaitReadable(Clock::time_point until) {
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(until - Clock::now());
  pollfd events[] = {{.fd = fd_, .events = POLLIN, .revents = 0},
                     {.fd = closing_.fd(), .events = POLLIN, .revents = 0}};
  const int count = poll(events, 2, static_cast<int>(std::max<int64_t>(left.count(), 0)));
  if (count < 0) {
    const int error = errno;
    LogWarning("select err %d", error);
    errno = error;
    return error == EAGAIN || error == EINTR ? Wait::kInterrupted : Wait::kFailed;
  }
  if (count == 0) return Wait::kQuiet;
  if (events[1].revents != 0) return Wait::kClosing;
  return (events[0].revents & POLLIN) != 0 ? Wait::kReadable : Wait::kHangUp;
}

/// Returns 0, or the status that ends the wait.
int32_t ControlChannel::ReadReplies(uint16_t opcode, size_t size) {
  std::array<std::byte, 4096> bytes;
  const ssize_t count = read(fd_, bytes.data(), bytes.size());
  if (count < 0 && (errno == EAGAIN || errno == EINTR)) {
    ++in_vain_;
    return 0;
  }
  in_vain_ = 0;
  if (IsWholeReply(std::span(bytes).first(static_cast<size_t>(std::max<ssize_t>(count, 0))), opcode,
                   size) &&
      !stream_.partial() && replies_.empty()) {
    replies_.emplace_back(bytes.begin(), bytes.begin() + count);
    return 0;
  }
  if (count > 0) {
    auto records = stream_.Append(std::span(bytes).first(static_cast<size_t>(count)));
    std::move(records.begin(), records.end(), std::back_inserter(replies_));
    return 0;
  }
  const int error = errno;
  LogWrongSize(count, opcode, size);
  if (count == 0) return -1;  // end of file: the co-processor has hung up
  LogError("read err %d", error);
  return -error;
}

/// Finds the reply among the records read, oldest first, and drops the others. A longer record is
/// truncated. A late reply to an earlier command with the same opcode is accepted as this one's.
bool ControlChannel::TakeReply(uint16_t opcode, CMD_HDR* record, size_t size) {
  while (!replies_.empty()) {
    const std::vector<std::byte> reply = std::move(replies_.front());
    replies_.pop_front();
    if (reply.size() < size) {
      LogWrongSize(static_cast<ssize_t>(reply.size()), opcode, size);
      continue;
    }
    CMD_HDR header;
    std::memcpy(&header, reply.data(), sizeof header);
    if (header.opcode == opcode) {
      std::memcpy(record, reply.data(), size);
      return true;
    }
    LogStale(header.opcode, opcode);
  }
  return false;
}

void ControlChannel::LogStale(uint16_t id, uint16_t opcode) {
  if (++stale_ <= kMostStaleLines) LogError("mismatch reply id %u opcode 0x%x", id, opcode);
}

}  // namespace kvox
