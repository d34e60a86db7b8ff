// The environment of a KvoxService in tests and fuzz targets: a co-processor that replies at once,
// and recoveries that run on request, without a thread or a pause.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "service/kvox_service.h"

namespace kvox {

/// Keeps the commands it gets; replies from a list of tap points, or with a failure.
class FakeCoprocessor : public CoprocessorLink {
 public:
  int32_t SendKvoxCommand(uint16_t opcode, CMD_HDR* record, size_t size) override {
    const auto* const bytes = reinterpret_cast<const uint8_t*>(record);
    sent.emplace_back(bytes + sizeof(CMD_HDR), bytes + size);
    opcodes.push_back(opcode);
    if (on_send) std::exchange(on_send, nullptr)();
    if (opcodes.size() == lost + 1) {
      lost = SIZE_MAX - 1;
      return -1;
    }
    if (const auto failure = failures.find(opcode); failure != failures.end()) {
      if (failure->second != -1) record->status = static_cast<int16_t>(failure->second);
      return failure->second;
    }
    if (opcode == CMD_KVOX_TAP_LIST_ID) List(*reinterpret_cast<TapListRecord*>(record));
    if (opcode == CMD_TAP_INFO_ID) Tell(*reinterpret_cast<TapInfoRecord*>(record));
    return 0;
  }
  void UpdateWakeLock(bool needed) override { wake_lock = needed; }

  std::vector<TapInfoState> taps;
  std::map<uint16_t, int32_t> failures;  // -1: no reply
  size_t lost = SIZE_MAX - 1;            // of `opcodes`, the one that gets no reply
  std::vector<uint16_t> opcodes;
  std::vector<std::vector<uint8_t>> sent;  // payloads
  std::function<void()> on_send;           // called in the next exchange
  bool wake_lock = false;
  bool endless_list = false;

 private:
  void List(TapListRecord& record) {
    size_t skip = size_t{record.page} * kTapListPageEntries;
    size_t entry = 0;
    for (const TapInfoState& tap : taps) {
      if (tap.core != record.core || entry == kTapListPageEntries) continue;
      if (skip > 0 && !endless_list) {
        --skip;
        continue;
      }
      record.entries[entry].tap = tap.tap;
      record.entries[entry++].index = tap.index;
    }
  }
  void Tell(TapInfoRecord& record) {
    for (const TapInfoState& tap : taps) {
      if (tap.tap == record.state.tap && tap.index == record.state.index) record.state = tap;
    }
  }
};

/// The tap points that the use cases bind.
inline std::vector<TapInfoState> UseCaseTaps() {
  const auto tap = [](FourCc name, uint8_t index, uint8_t core, uint8_t channels, uint8_t bytes) {
    return TapInfoState{.tap = name,
                        .index = index,
                        .core = core,
                        .sample_rate = 48000,
                        .block_length = 480,
                        .channels = channels,
                        .bytes_per_sample = bytes};
  };
  return {tap(MakeFourCc("imic"), 0, 2, 1, 2), tap(MakeFourCc("sspk"), 0, 2, 1, 2),
          tap(MakeFourCc("entr"), 5, 2, 2, 4), tap(MakeFourCc("vpdl"), 0, 4, 1, 2),
          tap(MakeFourCc("vpul"), 1, 4, 1, 2)};
}

/// A recovery that runs on request, through scans and late arrivals. Its clock jumps.
class ManualRecovery : public RecoveryRun, public RecoveryClock {
 public:
  explicit ManualRecovery(Body body) : body_(std::move(body)) {}
  void NoteArrival() override { arrived_ = true; }
  void NoteRights() override { arrived_ = true; }
  void NoteReady() override { arrived_ = true; }
  void RequestStop() override {}

  bool Pause(std::chrono::milliseconds time) override {
    now += time;
    return ++pauses, true;
  }
  bool stopping() const override {
    if (on_look) on_look();
    return false;
  }
  void ScanBegins() override { arrived_ = false; }
  TimePoint Now() const override { return now; }
  Wake WaitForFirstArrival(TimePoint until) override {
    if (arrived_) return Wake::kArrivals;
    if (until == TimePoint::max()) return Wake::kStopping;
    now = until;
    return Wake::kTime;
  }
  /// First the arrivals, then the time that the recovery waits for, if any.
  Wake WaitForArrivals(TimePoint until) override {
    if (++waits_ > kMostWaits) return Wake::kStopping;
    if (std::exchange(arrived_, false)) return Wake::kArrivals;
    if (!late_arrivals.empty()) {
      std::exchange(late_arrivals.front(), nullptr)();
      late_arrivals.erase(late_arrivals.begin());
      return Wake::kArrivals;
    }
    if (until == TimePoint::max()) return Wake::kStopping;
    now = until;
    return Wake::kTime;
  }

  void Run() { body_(*this); }

  int pauses = 0;
  TimePoint now;
  std::vector<std::function<void()>> late_arrivals;
  std::function<void()> on_look;  // each time that the recovery looks whether to stop

 private:
  static constexpr int kMostWaits = 1000;

  const Body body_;
  bool arrived_ = false;
  int waits_ = 0;  // one that never ends is a fault
};

/// One for all services of the process, in memory.
inline flight::FlightLog& MemoryFlightLog() {
  static auto* const log = new flight::FlightLog;
  return *log;
}

/// `recovery` is where the last recovery that the service started is found, as long as it lives.
inline std::shared_ptr<KvoxService> MakeService(CoprocessorLink& link, DeviceIo& io, LogTarget& log,
                                                const std::string& devices, ManualRecovery& startup,
                                                ManualRecovery*& recovery) {
  return ndk::SharedRefBase::make<KvoxService>(
      ServiceEnvironment{.link = link,
                         .io = io,
                         .io_log = log,
                         .flight = MemoryFlightLog(),
                         .device_directory = devices,
                         .start_recovery =
                             [&recovery](RecoveryRun::Body body) {
                               auto started = std::make_unique<ManualRecovery>(std::move(body));
                               recovery = started.get();
                               return started;
                             }},
      startup);
}

}  // namespace kvox
