// The real simulator in a private directory, and a test that plays the daemon.
#pragma once

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <cstring>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "kvox/common/control_records.h"
#include "tests/support/bytes.h"
#include "tests/support/process.h"
#include "tests/support/temp_directory.h"

namespace kvox::sim {

inline constexpr TapAddress kMic{.tap = MakeFourCc("imic"), .index = 0, .core = 2};

/// One tap point, which can be bound to the devices of number 0.
inline constexpr char kNoiseScenario[] = R"(
cores = [2]
tapouts = [0]
injects = [0]
tap = [{ name = "imic", core = 2, source = { kind = "noise" } }]
)";

class Fd : public UniqueFd {
 public:
  Fd(const std::filesystem::path& path, int flags)
      : UniqueFd(open(path.c_str(), flags | O_NONBLOCK | O_NOCTTY | O_CLOEXEC)) {
    EXPECT_GE(get(), 0) << path << ": " << std::strerror(errno);
  }

  /// Exactly `size` bytes, fewer when they do not arrive in time.
  Bytes Read(size_t size) {
    Bytes bytes(size);
    size_t at = 0;
    EXPECT_TRUE(WaitFor([&] {
      pollfd readable{.fd = get(), .events = POLLIN, .revents = 0};
      if (poll(&readable, 1, 100) <= 0) return false;
      const ssize_t got = read(get(), &bytes[at], size - at);
      if (got > 0) at += static_cast<size_t>(got);
      return at == size;
    }));
    return bytes;
  }
  void Write(const void* data, size_t size) {
    EXPECT_EQ(write(get(), data, size), static_cast<ssize_t>(size));
  }
};

class ProgramTest : public ::testing::Test {
 protected:
  ProgramTest() {
    signal(SIGPIPE, SIG_IGN);
    std::filesystem::create_directory(Device(""));
    setenv("KVOX_DEV_DIR", Device("").c_str(), 1);
  }
  std::filesystem::path Device(const std::string& name) const { return directory_ / "dev" / name; }
  bool NoDevices() const { return std::filesystem::is_empty(Device("")); }

  /// Starts kvosim and waits for the last of its devices.
  std::unique_ptr<Process> Start(std::vector<std::string> arguments,
                                 const char* last = "tapout41") {
    auto process =
        std::make_unique<Process>(KVOSIM_PROGRAM, std::move(arguments), directory_ / "kvosim");
    const auto path = Device(std::string("xdv-kvox_") + last);
    EXPECT_TRUE(WaitFor([&] { return std::filesystem::exists(path); })) << process->Err();
    return process;
  }
  /// Runs kvosim to its end.
  int Run(std::vector<std::string> arguments) {
    Process process(KVOSIM_PROGRAM, std::move(arguments), directory_ / "run");
    const int status = process.Wait();
    out_ = process.Out();
    err_ = process.Err();
    return status;
  }
  /// A command to a simulator that runs.
  void Ctl(const std::string& line) { EXPECT_EQ(Run(Words("ctl " + line)), 0) << err_; }
  /// The counters of a running simulator.
  nlohmann::json Status() {
    EXPECT_EQ(Run({"ctl", "status"}), 0) << err_;
    return nlohmann::json::parse(out_);
  }
  /// Of its faults those of one kind.
  nlohmann::json Fault(const std::string& kind) {
    const nlohmann::json status = Status();
    for (const auto& fault : status["faults"]) {
      if (fault["kind"] == kind) return fault;
    }
    ADD_FAILURE() << "no fault " << kind;
    return {};
  }
  template <typename Record>
  int Send(Fd& control, ControlOpcode opcode, Record record) {
    record.header.size = sizeof record;
    record.header.opcode = opcode;
    control.Write(&record, sizeof record);
    const auto reply = control.Read(sizeof record);
    std::memcpy(&record, reply.data(), sizeof record);
    EXPECT_EQ(record.header.opcode, opcode);
    return record.header.status;
  }
  int Bind(Fd& control, uint8_t tapout, uint8_t inject) {
    return Send(control, CMD_KVOX_TAP_BIND_ID, TapBindRecord{{}, kMic, {}, tapout, inject});
  }
  int Enable(Fd& control, uint8_t enable) {
    return Send(control, CMD_KVOX_TAP_ENABLE_ID, TapEnableRecord{{}, kMic, enable});
  }

  TempDirectory directory_;
  std::string out_;
  std::string err_;
};

}  // namespace kvox::sim
