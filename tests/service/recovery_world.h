// A simulated co-processor, its device nodes and a clock. Everything runs on the test's thread:
// events that are concurrent with a recovery happen while it pauses, or within the time of its
// steps.
#pragma once

#include <poll.h>

#include <cerrno>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <tuple>
#include <utility>

#include "tests/support/service_surroundings.h"

namespace kvox {

inline constexpr char kControlNode[] = "control";

/// The settings that a tap has received.
struct TapSetup {
  bool enabled = false;
  uint8_t tapout = kNoBuffer;
  uint8_t inject = kNoBuffer;
  uint32_t block_length = kBlockLengthNotSet;
  int jitter_buffer = -1;
  int bound = 0;  // a buffer that several taps name is that of the one with the highest number
  bool operator==(const TapSetup& other) const {
    const auto settings = [](const TapSetup& tap) {
      return std::tie(tap.enabled, tap.tapout, tap.inject, tap.block_length, tap.jitter_buffer);
    };
    return settings(*this) == settings(other);
  }
  bool Idle() const { return !enabled && tapout == kNoBuffer && inject == kNoBuffer; }
};
using TapSetups = std::map<FourCc, TapSetup>;

class RecoveryWorld : public CoprocessorLink, public DeviceIo {
 public:
  using Ms = std::chrono::milliseconds;
  enum class Mood { kAnswers, kSilent, kRefuses };

  struct Happening {
    enum class Kind { kArrival, kDeparture, kCommand };
    Ms at;
    Kind kind;
    std::string node;
    std::function<void()> command;
  };

  void Start(LogTarget& log) {
    service = ndk::SharedRefBase::make<KvoxService>(
        ServiceEnvironment{.link = *this,
                           .io = *this,
                           .io_log = log,
                           .flight = MemoryFlightLog(),
                           .device_directory = "",
                           .scan = [this](const std::string&) { return Scan(); },
                           .start_recovery =
                               [this](RecoveryRun::Body body) {
                                 auto started = std::make_unique<Thread>(*this, std::move(body));
                                 recovery_ = started.get();
                                 return started;
                               }},
        startup_);
  }

  /// Runs all listed events and their consequences. False when that does not end.
  bool Run() {
    for (int turn = 0; turn < 1000; ++turn) {
      if (!leaving_.empty()) {
        Report(DeviceEvent::Kind::kLeft, std::exchange(leaving_, ""));
      } else if (recovery_ != nullptr && !recovery_->done) {
        running_ = recovery_;
        running_->body(*running_);
        running_->done = true;
        running_ = nullptr;
      } else if (!happenings.empty() || !waiting_commands_.empty()) {
        if (!happenings.empty()) now = std::max(now, happenings.front().at);
        Elapse(now);
      } else {
        return true;
      }
    }
    return false;
  }

  /// As a client's thread would.
  void RunCommand(const std::function<void()>& command) {
    const Ms begin = now;
    in_command_ = true;
    command();
    in_command_ = false;
    in_commands += now - begin;
  }

  Ms now{0};
  Ms in_commands{0};  // time that clients' commands took
  Ms last_work{0};    // last exchange with a device
  int exchanges = 0;
  std::set<std::string> nodes;
  std::map<std::string, Ms> stuck;  // nodes that cannot be opened before
  std::deque<Happening> happenings;
  Mood mood = Mood::kAnswers;
  TapSetups told;     // the co-processor's memory
  TapSetups clients;  // what clients have set and the daemon must remember
  std::set<int> open;
  std::shared_ptr<KvoxService> service;

  // CoprocessorLink.
  int32_t SendKvoxCommand(uint16_t opcode, CMD_HDR* record, size_t) override {
    ++exchanges;
    const bool there = nodes.contains(kControlNode);
    Pass(!there ? Ms(400) : mood == Mood::kSilent ? Ms(500) : Ms(1));
    last_work = now;
    if (!there || mood == Mood::kSilent) return -1;
    if (mood == Mood::kRefuses) return record->status = -5;
    Take(opcode, record, told);
    if (in_command_) Remember(opcode, record);
    return 0;
  }
  void UpdateWakeLock(bool) override {}

  // DeviceIo. The I/O threads of tap-outs wait for their end.
  int Open(const char* path, Direction) override {
    last_work = now;
    if (in_command_) return *open.insert(next_fd_++).first;  // clients have no time for retries
    if (!nodes.contains(path) || stuck[path] > now) {
      errno = ENXIO;
      return -1;
    }
    return *open.insert(next_fd_++).first;
  }
  void Close(int fd) override { open.erase(fd); }
  Ready Wait(int, Direction, int wake_fd, std::chrono::nanoseconds) override {
    pollfd wake = {.fd = wake_fd, .events = POLLIN, .revents = 0};
    return poll(&wake, 1, 200) > 0 ? Ready::kWoken : Ready::kTimeout;
  }
  int Watch(int, int) override { return -1; }
  Ready WaitWatched(int, int) override { return Ready::kFailed; }
  ssize_t Read(int, std::span<std::byte>) override { return 0; }
  ssize_t Write(int, std::span<const std::byte> bytes) override {
    return static_cast<ssize_t>(bytes.size());
  }
  uint64_t NowNs() override { return 0; }

 private:
  /// Replaces the recovery's thread. It runs when the world schedules it.
  struct Thread : public RecoveryRun, public RecoveryClock {
    Thread(RecoveryWorld& its_world, Body its_body) : world(its_world), body(std::move(its_body)) {}
    ~Thread() override { world.recovery_ = nullptr; }

    void NoteArrival() override { arrivals.NoteArrival(Now()); }
    void NoteRights() override { arrivals.NoteRights(Now()); }
    void NoteReady() override { arrivals.NoteReady(); }
    void RequestStop() override { stop = true; }
    TimePoint Now() const override { return TimePoint(world.now); }
    bool Pause(Ms time) override { return world.Elapse(world.now + time), !stop; }
    bool stopping() const override { return world.Elapse(world.now), stop; }
    void ScanBegins() override { arrivals.ScanBegins(); }
    Wake WaitForFirstArrival(TimePoint until) override {
      return WaitFor([this] { return arrivals.arrived() ? Now() : TimePoint::max(); }, until);
    }
    Wake WaitForArrivals(TimePoint until) override {
      return WaitFor([this] { return arrivals.Due(); }, until);
    }
    Wake WaitFor(const std::function<TimePoint()>& due, TimePoint until) {
      for (;;) {
        world.Elapse(world.now);
        if (stop) return Wake::kStopping;
        if (Now() >= due()) return Wake::kArrivals;
        if (Now() >= until) return Wake::kTime;
        auto next = std::min(due(), until);
        if (!world.happenings.empty()) {
          next = std::min(next, TimePoint(world.happenings.front().at));
        }
        if (next == TimePoint::max()) return Wake::kStopping;  // all is done
        world.now = std::chrono::duration_cast<Ms>(next.time_since_epoch());
      }
    }

    RecoveryWorld& world;
    const Body body;
    ArrivalWatch arrivals;
    bool stop = false;
    bool done = false;
  };

  /// Time passes while no lock is held: clients get their turns.
  void Elapse(Ms until) {
    do {
      while (!waiting_commands_.empty()) {
        const auto command = std::move(waiting_commands_.front());
        waiting_commands_.pop_front();
        RunCommand(command);
      }
      HappenUpTo(until);
    } while (!waiting_commands_.empty());
    if (leaving_.empty()) now = std::max(now, until);
  }

  /// Time passes within a step: commands wait for its locks.
  void Pass(Ms time) {
    const Ms until = now + time;
    HappenUpTo(until);
    now = std::max(now, until);
  }

  /// The event thread waits for the recovery with a departure, and with all events after it.
  void HappenUpTo(Ms until) {
    while (leaving_.empty() && !happenings.empty() && happenings.front().at <= until) {
      const Happening happening = std::move(happenings.front());
      happenings.pop_front();
      now = std::max(now, happening.at);
      switch (happening.kind) {
        case Happening::Kind::kArrival:
          nodes.insert(happening.node);
          Report(DeviceEvent::Kind::kArrived, happening.node);
          break;
        case Happening::Kind::kDeparture:
          nodes.erase(happening.node);
          told.clear();  // the co-processor restarts
          leaving_ = happening.node;
          if (running_ != nullptr) running_->stop = true;
          break;
        case Happening::Kind::kCommand:
          waiting_commands_.push_back(happening.command);
          break;
      }
    }
  }

  void Report(DeviceEvent::Kind kind, const std::string& node) const {
    service->HandleDeviceEvent({kind, "xdv-kvox_" + node});
  }

  DeviceScan Scan() const {
    DeviceScan scan;
    for (const std::string& node : nodes) {
      if (node.starts_with("tapout"))
        scan.tapouts.push_back({std::stoi(node.substr(6)), node, node});
      if (node.starts_with("inject"))
        scan.injects.push_back({std::stoi(node.substr(6)), node, node});
    }
    scan.any_tapout_path = !scan.tapouts.empty();
    return scan;
  }

  /// Settings of an idle tap are remembered until it is switched off or unbound.
  void Remember(uint16_t opcode, const CMD_HDR* record) {
    Take(opcode, record, clients);
    if (opcode != CMD_KVOX_TAP_ENABLE_ID && opcode != CMD_KVOX_TAP_BIND_ID) return;
    std::erase_if(clients, [&](const auto& tap) {
      return tap.first == AddressOf(record).tap && tap.second.Idle();
    });
  }

  static const TapAddress& AddressOf(const CMD_HDR* record) {
    return reinterpret_cast<const TapEnableRecord*>(record)->address;
  }

  void Take(uint16_t opcode, const CMD_HDR* record, TapSetups& setups) {
    if (opcode == CMD_TAP_INFO_ID) return;
    TapSetup& tap = setups[AddressOf(record).tap];
    switch (opcode) {
      case CMD_KVOX_TAP_ENABLE_ID:
        tap.enabled = reinterpret_cast<const TapEnableRecord*>(record)->enable != 0;
        break;
      case CMD_KVOX_TAP_BIND_ID:
        tap.tapout = reinterpret_cast<const TapBindRecord*>(record)->tapout_buffer;
        tap.inject = reinterpret_cast<const TapBindRecord*>(record)->inject_buffer;
        tap.bound = ++bindings_;
        break;
      case CMD_KVOX_TAP_SET_BLOCK_LEN_ID:
        tap.block_length = reinterpret_cast<const TapSettingRecord*>(record)->value;
        return;
      case CMD_KVOX_TAP_SET_JITTER_BUFFER_ID:
        tap.jitter_buffer =
            static_cast<int>(reinterpret_cast<const TapSettingRecord*>(record)->value);
        return;
    }
  }

  ManualRecovery startup_{[](RecoveryClock&) {}};
  Thread* recovery_ = nullptr;
  Thread* running_ = nullptr;
  std::string leaving_;  // a departure that waits for the recovery to end
  std::deque<std::function<void()>> waiting_commands_;
  bool in_command_ = false;
  int bindings_ = 0;
  int next_fd_ = 1000;
};

}  // namespace kvox
