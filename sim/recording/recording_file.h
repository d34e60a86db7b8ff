// Writes records into a file on a thread of its own, so that no node waits for a disk.
#pragma once

#include <cstdint>
#include <deque>
#include <filesystem>
#include <map>
#include <string>
#include <thread>

#include "kvox/common/mutex.h"
#include "kvox/common/unique_fd.h"
#include "sim/recording/node_record.h"
#include "sim/recording/pcapng.h"

namespace kvox::sim {

struct RecordingOptions {
  std::filesystem::path file;
  uint64_t rotate_at = 0;  // bytes after which the next file begins; 0: never
  bool audio = true;       // otherwise packets' headers only
};

/// The file is valid after each write: whole blocks, one write each. When the disk is full the
/// record that does not fit is taken back, and nothing more is written. Of too many records that
/// wait, the newest are dropped, and their number is recorded.
class RecordingFile {
 public:
  /// Throws std::runtime_error when the file cannot be made.
  explicit RecordingFile(RecordingOptions options);
  /// Writes what waits.
  ~RecordingFile();
  RecordingFile(const RecordingFile&) = delete;
  RecordingFile& operator=(const RecordingFile&) = delete;

  /// Stamps the record, and queues it. One thread.
  void Add(NodeRecord record);

  /// Whether writing has ended, which was printed. Any thread.
  bool failed() const;
  /// Records that were dropped because the disk is too slow. Any thread.
  uint64_t dropped() const;

 private:
  NodeRecord TakeMissing(const std::string& node);
  void Run();
  void Write(const NodeRecord& record);
  void WriteBlock(const std::vector<std::byte>& block);
  void Begin();

  const RecordingOptions options_;
  uint64_t last_ns_ = 0;    // of the records
  uint64_t offset_ns_ = 0;  // from the monotonic clock to 1970
  uint32_t missing_ = 0;    // dropped since the last that was queued

  // The thread's.
  UniqueFd fd_;
  uint64_t size_ = 0;
  int number_ = 0;  // of the file
  PcapngWriter writer_;
  std::map<std::string, uint32_t> present_;  // nodes, with their permission bits

  mutable Mutex mutex_;
  CondVar changed_;
  std::deque<NodeRecord> waiting_ GUARDED_BY(mutex_);
  size_t waiting_bytes_ GUARDED_BY(mutex_) = 0;
  bool ending_ GUARDED_BY(mutex_) = false;
  bool failed_ GUARDED_BY(mutex_) = false;
  uint64_t dropped_ GUARDED_BY(mutex_) = 0;
  std::thread thread_;
};

}  // namespace kvox::sim
