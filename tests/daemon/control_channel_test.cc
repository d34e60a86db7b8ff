#include "daemon/control_channel.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <termios.h>

#include <array>
#include <atomic>
#include <cstring>
#include <thread>

#include "tests/support/bytes.h"
#include "tests/support/log_capture.h"
#include "tests/support/temp_directory.h"

namespace kvox {
namespace {

using ::testing::ElementsAre;
using ::testing::IsSupersetOf;

/// The co-processor's end of a control device: a pseudo-terminal whose commands a test answers.
class ControlChannelTest : public ::testing::Test {
 protected:
  void SetUp() override { Plug(); }
  void TearDown() override { Unplug(); }

  void Plug() {
    int master = -1;
    int slave = -1;
    char name[64];
    termios raw = {};
    cfmakeraw(&raw);
    ASSERT_EQ(openpty(&master, &slave, name, &raw, nullptr), 0);
    master_ = UniqueFd(master);
    slave_ = UniqueFd(slave);
    ASSERT_EQ(symlink(name, path_.c_str()), 0);
  }
  void Unplug() {
    directory_.Remove("control");
    master_ = UniqueFd();
    slave_ = UniqueFd();
  }

  /// Sends a tap-enable command; `device` plays the other end once the command has arrived.
  int32_t Exchange(const std::function<void(Bytes command)>& device) {
    std::thread player([&] {
      pollfd ready{.fd = master_.get(), .events = POLLIN, .revents = 0};
      if (poll(&ready, 1, 5000) != 1) return;
      Bytes command(64);
      const ssize_t count = read(master_.get(), command.data(), command.size());
      command.resize(static_cast<size_t>(std::max<ssize_t>(count, 0)));
      device(command);
    });
    record_ = {};
    record_.enable = 1;
    const int32_t status =
        channel_.Exchange(CMD_KVOX_TAP_ENABLE_ID, &record_.header, sizeof record_);
    player.join();
    return status;
  }

  /// Opens the channel and clears the log.
  void Open() {
    channel_.Open();
    EXPECT_EQ(log_.Take(), (std::vector<std::string>{"I Opened " + path_ + "\n"}));
  }

  void Send(const Bytes& bytes) {
    EXPECT_EQ(write(master_.get(), bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
  }

  /// The command as a reply, with another status, opcode or length.
  static Bytes Reply(Bytes command, int16_t status, uint16_t opcode = 0xCA, uint16_t size = 16) {
    command.resize(size);
    std::memcpy(command.data() + 2, &size, sizeof size);
    std::memcpy(command.data() + 4, &opcode, sizeof opcode);
    std::memcpy(command.data() + 6, &status, sizeof status);
    return command;
  }

  LogCapture log_;
  TempDirectory directory_;
  const std::string path_ = directory_ / "control";
  UniqueFd master_;
  UniqueFd slave_;
  ControlChannel channel_{path_};
  TapEnableRecord record_;
};

TEST_F(ControlChannelTest, CommandsAreNumberedAndCarryTheirReplyBack) {
  Open();
  for (int i = 0; i < 258; ++i) {
    ASSERT_EQ(Exchange([&](Bytes command) {
                ASSERT_EQ(command.size(), 16u);
                CMD_HDR header;
                std::memcpy(&header, command.data(), sizeof header);
                EXPECT_EQ(header.seq, i % 256);
                EXPECT_EQ(header.size, 16);
                EXPECT_EQ(header.opcode, 0xCA);
                EXPECT_EQ(header.status, 0);
                command[15] = std::byte{0x77};
                Send(command);
              }),
              0);
    EXPECT_EQ(record_.reserved, 0x77);
  }
  log_.Take();
  EXPECT_EQ(Exchange([&](Bytes command) { Send(Reply(command, -5)); }), -5);
  EXPECT_THAT(log_.Take(), ElementsAre("I SendKvoxCommand: send opcode 0xca\n",
                                       "E KVO opcode 0xca reply status -5", "I KVO reply OK"));
}

TEST_F(ControlChannelTest, WhatIsNotTheAnswerIsPassedOver) {
  Open();
  EXPECT_EQ(Exchange([&](Bytes command) {
              // Two that are stale: other opcodes.
              Send(Reply(command, 1, 0xCB) + Reply(command, 1, 0xCC, 44) +
                   Reply(command, 1, 0xCA, 12) + Reply(command, 7));
            }),
            7);
  EXPECT_THAT(
      log_.Take(),
      ElementsAre("I SendKvoxCommand: send opcode 0xca\n", "E mismatch reply id 203 opcode 0xca",
                  "E mismatch reply id 204 opcode 0xca", "E wrong data sz 12 != 16 for opcode 0xca",
                  "E KVO opcode 0xca reply status 7", "I KVO reply OK"));
}

TEST_F(ControlChannelTest, StaleRepliesThatAreThereCostNoTime) {
  // In its canonical mode a terminal gives one line with each read, as a device gives one record.
  termios line = {};
  ASSERT_EQ(tcgetattr(slave_.get(), &line), 0);
  line.c_lflag |= ICANON;
  line.c_cc[VEOF] = line.c_cc[VEOL] = line.c_cc[VEOL2] = line.c_cc[VERASE] = _POSIX_VDISABLE;
  line.c_cc[VKILL] = line.c_cc[VWERASE] = line.c_cc[VLNEXT] = _POSIX_VDISABLE;
  ASSERT_EQ(tcsetattr(slave_.get(), TCSANOW, &line), 0);
  channel_.Open();
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_EQ(Exchange([&](Bytes command) {
              command.back() = std::byte{'\n'};
              for (int i = 0; i < 200; ++i) Send(Reply(command, 1, 0xCB));
              Send(Reply(command, 7));
            }),
            7);
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(400));
  EXPECT_LT(log_.Count("mismatch reply id"), 50u);
  EXPECT_EQ(log_.Count("200 stale replies for opcode 0xca"), 1u);
  EXPECT_EQ(Exchange([&](Bytes command) {
              command.back() = std::byte{'\n'};
              Send(Reply(command, 1, 0xCB) + Reply(command, 8));
            }),
            8);
  EXPECT_EQ(log_.Count("stale replies"), 1u) << "each command counts its own";
}

TEST_F(ControlChannelTest, AReplyOfTheRightLengthCountsWhateverItsSizeFieldSays) {
  Open();
  for (const uint16_t size : std::to_array<uint16_t>({0, 7, 8, 44, 0xFFFF})) {
    EXPECT_EQ(Exchange([&](const Bytes& command) {
                Bytes reply = Reply(command, 3);
                std::memcpy(reply.data() + 2, &size, sizeof size);
                Send(reply);
              }),
              3)
        << size;
  }
}

TEST_F(ControlChannelTest, WhatAClosedChannelHadHalfReceivedIsGone) {
  Open();
  EXPECT_LT(Exchange([&](const Bytes& command) {
              Send(Part(command, 0, 10));
              Unplug();
            }),
            0);
  Plug();
  EXPECT_EQ(Exchange([&](Bytes command) { Send(Reply(command, 4) + Reply(command, 5)); }), 4);
  Unplug();
  Plug();
  channel_.Close();
  EXPECT_EQ(Exchange([&](Bytes command) { Send(Reply(command, 6)); }), 6)
      << "nor does what it had not looked at reach the next device";
}

TEST_F(ControlChannelTest, AFloodEndsWithTheBudgetAndDoesNotFillTheLog) {
  Unplug();
  ASSERT_EQ(symlink("/dev/zero", path_.c_str()), 0);
  const auto begin = std::chrono::steady_clock::now();
  record_ = {};
  EXPECT_EQ(channel_.Exchange(CMD_KVOX_TAP_ENABLE_ID, &record_.header, sizeof record_), -1);
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(3));
  EXPECT_EQ(log_.Count("W waitForKvoxCommandResponse: timeout for opcode 0xca"), 1u);
  EXPECT_LT(log_.Count("mismatch reply id 0 opcode 0xca"), 50u);
}

TEST_F(ControlChannelTest, ACutReplyDoesNotSpoilTheNextOne) {
  Open();
  EXPECT_EQ(Exchange([&](Bytes command) {
              Send(Part(command, 0, 10));
              EXPECT_TRUE(log_.WaitFor("wrong data sz 10 != 16 for opcode 0xca"));
              Send(Reply(command, 3));
            }),
            3);
}

TEST_F(ControlChannelTest, LateRepliesAreSkippedByOpcodeOnly) {
  channel_.Open();
  Bytes late;
  EXPECT_EQ(Exchange([&](Bytes command) { late = command; }), -1);
  EXPECT_EQ(log_.Count("W waitForKvoxCommandResponse: timeout for opcode 0xca"), 1u);
  Send(Reply(late, 9));
  EXPECT_EQ(Exchange([](const Bytes&) {}), 9) << "it passes for this command's own";
}

TEST_F(ControlChannelTest, ClosingGoesBeforeCommandsThatWait) {
  constexpr int kCommands = 4;  // one under way; the others wait before the channel is closed
  for (int round = 1; round <= 2; ++round) {  // in one, closing might be first by chance
    Open();
    std::atomic<int> answered = 0;
    std::vector<std::thread> commands;
    for (int i = 0; i < kCommands; ++i) {
      commands.emplace_back([&] {
        TapEnableRecord record;
        channel_.Exchange(CMD_KVOX_TAP_ENABLE_ID, &record.header, sizeof record);
        ++answered;
      });
    }
    EXPECT_TRUE(log_.WaitFor("send opcode", kCommands));
    poll(nullptr, 0, 50);
    directory_.Remove("control");
    const auto begin = std::chrono::steady_clock::now();
    channel_.Close();
    EXPECT_LE(answered, 1);
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(250))
        << "neither the command under way nor those that wait have their time first";
    for (std::thread& command : commands) command.join();
    EXPECT_GE(log_.Count("E Cannot find " + path_), 3u);
    Unplug();
    Plug();
    log_.Take();
  }
}

TEST_F(ControlChannelTest, AClosedChannelOpensForACommand) {
  EXPECT_EQ(Exchange([&](Bytes command) { Send(command); }), 0);
  EXPECT_THAT(log_.Take(),
              IsSupersetOf(std::vector<std::string>{
                  "E SendKvoxCommand: Error sending opcode 0xca, status -1, expected 16",
                  "E SendKvoxCommand: Trying again\n", "I Opened " + path_ + "\n"}));
}

TEST_F(ControlChannelTest, AHangUpEndsTheWaitAtOnce) {
  channel_.Open();
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_LT(Exchange([&](const Bytes&) { Unplug(); }), 0);
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(400));
}

}  // namespace
}  // namespace kvox
