// The I/O thread of an enabled tap-out buffer: reads packets from the device, checks them and their
// timing, has them recorded, runs the processors that read the buffer and sends what they made to
// their inject buffers.
//
// docs/realtime.md lists what this thread never does. It owns its device descriptor alone; service
// threads reach it through the route table, the wake event and a few atomics.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <thread>
#include <vector>

#include "buffer/device_io.h"
#include "buffer/packet_recorder.h"
#include "buffer/route_table.h"
#include "buffer/rx_format.h"
#include "buffer/stream_parser.h"
#include "buffer/timing_judge.h"
#include "kvox/common/log.h"
#include "kvox/common/mutex.h"
#include "kvox/common/wake_event.h"
#include "processors/block.h"

namespace kvox {

/// What a reader works with. All of it outlives the reader.
struct TapReaderLinks {
  std::string name;  // of the buffer, for log lines
  std::string device_path;
  DeviceIo& io;
  RoutePublisher& routes;
  RxFormatCell& rx_format;
  PacketRecorder& recorder;
  LogTarget& log;  // takes lines without waiting
  WakeEvent& wake;
};

/// Counters since the thread started. Any thread may read them.
struct RxStatistics {
  std::atomic<uint64_t> packets = 0;
  std::atomic<uint32_t> late = 0;
  std::atomic<uint32_t> early = 0;
  std::atomic<uint32_t> write_errors = 0;  // packets that an inject buffer did not take
  std::atomic<uint32_t> samples_per_packet = 0;
  std::atomic<uint32_t> sample_rate = 0;
};

class TapReader : private RtWaiter {
 public:
  /// Takes over `fd`.
  TapReader(TapReaderLinks links, int fd);
  ~TapReader() override;

  /// Starts the thread. False, after a log line that tells why, when the system has none to give.
  bool Start();

  /// Ends the thread at once, wherever it waits, and joins it.
  void Stop();

  /// The thread's body; returns after Stop, or when the device is beyond repair.
  void Run();

  /// Copies the receive area, or the work area of `port`, between two packets. False when the
  /// thread did not come by within a second. Service threads, one at a time.
  bool CopyArea(InjectPort* port, std::vector<std::byte>& copy);

  const RxStatistics& statistics() const { return statistics_; }

 private:
  enum class Outcome { kPacket, kStartOver, kEnd };

  struct CopyRequest {
    InjectPort* port;
    std::vector<std::byte>* copy;
    bool done;
  };

  bool stopping() const { return stopping_.load(std::memory_order_relaxed); }

  // All below: RT, on the thread.
  Outcome ReadPacket(StreamFindings& findings);
  Outcome HandleReadError(int error, size_t requested);
  Outcome Reinitialise();
  void SetHandle(int fd);
  void Pause(int ms);
  DeviceIo::Ready WaitForInput();
  void OnWake();
  void ServeCopy(CopyRequest& request);
  void KeepSentPackets();
  bool WaitWritable(int fd, uint64_t deadline_ns) override;
  bool WaitReadable(int fd, uint64_t deadline_ns) override;
  uint64_t NowNs() override { return links_.io.NowNs(); }
  bool WaitFor(int fd, DeviceIo::Direction direction, uint64_t deadline_ns);

  void HandlePacket(const StreamFindings& findings);
  void FollowStream(const KvoxPacketHeader& header, bool unpunctual);
  void FollowFormat(const RouteTable& table, const KvoxPacketHeader& header);
  void Dispatch(const RouteTable& table, const KvoxPacketHeader& header, std::byte* packet,
                uint64_t arrived_ns);
  void Send(const Route& route, const BlockResult& result, OutputArea& area,
            const KvoxPacketHeader& header, std::byte* packet);

  const TapReaderLinks links_;
  const char* const name_;
  std::thread thread_;
  std::atomic<bool> stopping_ = false;
  std::atomic<bool> copy_wanted_ = false;
  RxStatistics statistics_;

  Mutex copy_mutex_;  // a leaf lock; the thread takes it when a copy is wanted, not once a packet
  CondVar copied_;
  CopyRequest* copy_request_ GUARDED_BY(copy_mutex_) = nullptr;
  bool ended_ GUARDED_BY(copy_mutex_) = false;

  // The thread's own.
  int handle_ = -1;
  int watch_ = -1;  // over handle_ and the wake event; -1 where there can be none
  const std::unique_ptr<std::byte[]> areas_;
  const StreamParser::Area receive_area_;
  StreamParser parser_;
  TimingJudge judge_;
  KvoxPacketHeader stored_header_;
  uint32_t rx_format_serial_ = 0;
  uint32_t waits_ = 0;
  uint32_t read_errors_ = 0;
  uint32_t junk_reads_ = 0;                  // since the last packet
  const std::byte* last_payload_ = nullptr;  // of the packet dispatched last
  uint32_t previous_number_ = 0;
  uint32_t previous_payload_size_ = 0;
};

}  // namespace kvox
