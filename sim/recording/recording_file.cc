#include "sim/recording/recording_file.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <stdexcept>
#include <utility>

#include "kvox/common/device_names.h"
#include "kvox/common/kvox_utils.h"
#include "sim/output.h"

namespace kvox::sim {
namespace {

constexpr size_t kMostWaiting = 32 << 20;         // bytes
constexpr size_t kRecordCost = 128;               // of a record besides its bytes
constexpr std::chrono::milliseconds kGather{10};  // records: to wake the thread for each costs time
constexpr mode_t kMode = 0600;                    // it is somebody's voice

size_t CostOf(const NodeRecord& record) {
  return record.bytes.size() + kRecordCost;
}

/// "phone.pcapng", then "phone-2.pcapng".
std::filesystem::path PathOf(const std::filesystem::path& file, int number) {
  if (number == 1) return file;
  std::filesystem::path name = file.stem();
  name += fmt::format("-{}", number);
  name += file.extension();
  return file.parent_path() / name;
}

}  // namespace

RecordingFile::RecordingFile(RecordingOptions options)
    : options_(std::move(options)), offset_ns_(WallClockNs() - GetTimestampNs()) {
  Begin();
  thread_ = std::thread([this] { Run(); });
}

RecordingFile::~RecordingFile() {
  {
    const MutexLock lock(mutex_);
    ending_ = true;
    if (missing_ > 0 && !failed_) waiting_.push_back(TakeMissing(kControlDevice));
    changed_.NotifyAll();
  }
  thread_.join();
}

void RecordingFile::Add(NodeRecord record) {
  record.time_ns = last_ns_ = std::max(last_ns_, GetTimestampNs() + offset_ns_);
  const MutexLock lock(mutex_);
  if (failed_) return;
  if (waiting_bytes_ + CostOf(record) > kMostWaiting) {
    ++missing_;
    ++dropped_;
    return;
  }
  if (missing_ > 0) {
    waiting_.push_back(TakeMissing(record.node));
    waiting_bytes_ += CostOf(waiting_.back());
  }
  waiting_bytes_ += CostOf(record);
  waiting_.push_back(std::move(record));
}

NodeRecord RecordingFile::TakeMissing(const std::string& node) {
  return {.node = node,
          .time_ns = last_ns_,
          .event = NodeEvent::kLost,
          .number = std::exchange(missing_, 0)};
}

bool RecordingFile::failed() const {
  const MutexLock lock(mutex_);
  return failed_;
}

uint64_t RecordingFile::dropped() const {
  const MutexLock lock(mutex_);
  return dropped_;
}

void RecordingFile::Run() {
  while (true) {
    std::deque<NodeRecord> records;
    {
      const MutexLock lock(mutex_);
      const auto due = std::chrono::steady_clock::now() + kGather;
      while (!ending_ && std::chrono::steady_clock::now() < due) changed_.WaitUntil(mutex_, due);
      if (waiting_.empty() && ending_) return;
      records.swap(waiting_);
      waiting_bytes_ = 0;
    }
    try {
      for (const NodeRecord& record : records) Write(record);
    } catch (const std::runtime_error& error) {
      Print(stderr, "kvosim: {}\n", error.what());
      const MutexLock lock(mutex_);
      failed_ = true;
      waiting_.clear();
      waiting_bytes_ = 0;
      return;
    }
  }
}

/// Each file begins with the nodes that are there.
void RecordingFile::Write(const NodeRecord& record) {
  if (options_.rotate_at > 0 && size_ >= options_.rotate_at) {
    Begin();
    for (const auto& [node, rights] : present_) {
      NodeRecord known{.node = node, .time_ns = record.time_ns, .event = NodeEvent::kArrived};
      WriteBlock(writer_.Add(known));
      known.event = NodeEvent::kRights;
      known.number = rights;
      WriteBlock(writer_.Add(known));
    }
  }
  WriteBlock(writer_.Add(record));
  if (record.event == NodeEvent::kLeft) present_.erase(record.node);
  if (record.event == NodeEvent::kRights) present_[record.node] = record.number;
}

/// Throws std::runtime_error; then the file ends with the block before.
void RecordingFile::WriteBlock(const std::vector<std::byte>& block) {
  const ssize_t written = write(fd_.get(), block.data(), block.size());
  if (written == static_cast<ssize_t>(block.size())) {
    size_ += block.size();
    return;
  }
  const int problem = written < 0 ? errno : ENOSPC;
  const bool whole = ftruncate(fd_.get(), static_cast<off_t>(size_)) == 0;
  throw std::runtime_error(
      fmt::format("{}: cannot be written ({}); the recording ends here{}, audio and commands go on",
                  PathOf(options_.file, number_).string(), std::strerror(problem),
                  whole ? "" : " with a block that is cut"));
}

/// The next file.
void RecordingFile::Begin() {
  const std::filesystem::path path = PathOf(options_.file, ++number_);
  fd_ = UniqueFd(open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, kMode));
  if (!fd_.valid()) {
    throw std::runtime_error(
        fmt::format("{}: cannot be written ({}); expected a file to record into", path.string(),
                    std::strerror(errno)));
  }
  size_ = 0;
  writer_ = PcapngWriter();
  WriteBlock(PcapngWriter::Begin());
}

}  // namespace kvox::sim
