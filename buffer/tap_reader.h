// The I/O thread of an enabled tap-out buffer: for each packet it reads, parses, records, judges
// the timing, routes it through the processors and sends their output.
//
// docs/realtime.md lists what this thread never does. Service threads reach it through the route
// table, the wake event and IoThreadCall.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "buffer/device_io.h"
#include "buffer/io_thread_call.h"
#include "buffer/packet_account.h"
#include "buffer/packet_recorder.h"
#include "buffer/route_table.h"
#include "buffer/rx_format.h"
#include "buffer/stream_parser.h"
#include "buffer/tap_device.h"
#include "buffer/timing_judge.h"
#include "kvox/common/log.h"
#include "kvox/common/wake_event.h"

namespace kvox {

/// The reader's collaborators. All of them outlive it.
struct TapReaderLinks {
  const std::string& name;  // of the buffer, for log lines
  const std::string& device_path;
  DeviceIo& io;
  RoutePublisher& routes;
  RxFormatCell& rx_format;
  PacketRecorder& recorder;
  LogTarget& log;  // takes lines without waiting
  WakeEvent& wake;
  std::atomic<bool>& gave_up;            // set when the thread ends though nobody has stopped it
  flight::StreamSlot* flight = nullptr;  // null: packets are not recorded
};

class TapReader {
 public:
  /// Takes over `fd`.
  TapReader(const TapReaderLinks& links, int fd);
  ~TapReader();

  /// Starts the thread. False, after a log line with the cause, if the system cannot create it.
  bool Start();

  /// Ends the thread at once, wherever it waits, and joins it.
  void Stop();

  /// The thread's body; returns after Stop, or when the device cannot be reopened.
  void Run();

  /// Copies the receive area, or the packet last sent through `port`, between two packets. False if
  /// that has been overwritten, or the thread did not get to it within a second. Service threads,
  /// one at a time.
  bool CopyArea(InjectPort* port, std::vector<std::byte>& copy);

 private:
  // All below: RT, on the thread.
  std::byte* NextPacket();
  bool StartOver();
  bool JudgeTiming(const KvoxPacketHeader& header, uint64_t now_ns);
  void FollowStream(const KvoxPacketHeader& header);
  void FollowFormat(const RouteTable& table, const KvoxPacketHeader& header);
  void Dispatch(const RouteTable& table, const KvoxPacketHeader& header, std::byte* packet,
                uint64_t arrived_ns);
  flight::Loss WhyEnded() const;
  void Send(const Route& route, const BlockResult& result, OutputArea& area,
            const KvoxPacketHeader& header, std::byte* packet, SendPatience& patience);
  void KeepSentPackets();

  const TapReaderLinks links_;
  const char* const name_;
  std::thread thread_;
  IoThreadCall calls_;

  // The thread's own.
  TapDevice device_;
  const std::unique_ptr<std::byte[]> areas_;
  const StreamParser::Area receive_area_;
  StreamParser parser_;
  TimingJudge judge_;
  PacketAccount account_;
  KvoxPacketHeader stored_header_;
  uint32_t rx_format_serial_ = 0;
  uint32_t junk_reads_ = 0;                  // since the last packet
  const std::byte* last_payload_ = nullptr;  // dispatched last; null once it has been overwritten
  uint64_t packets_ = 0;                     // that were not dropped, since the thread began
  uint32_t previous_number_ = 0;
  uint32_t previous_payload_size_ = 0;
};

}  // namespace kvox
