// Effects of faults on the wire: the test reads and writes the devices as a daemon would.
#include <cerrno>

#include "tests/sim/program.h"

namespace kvox::sim {
namespace {

constexpr uint64_t kMs = 1'000'000;
constexpr size_t kPacket = kPacketHeaderSize + 960;

class FaultWireTest : public ProgramTest {
 protected:
  void StartWith(const std::string& faults) {
    std::ofstream(directory_ / "s.toml") << kNoiseScenario << faults;
    sim_ = Start({"--scenario", directory_ / "s.toml", "--speed", "4", "--keep-rate"}, "tapout0");
    control_ = std::make_unique<Fd>(Device("xdv-kvox_control"), O_RDWR);
  }
  void Stream() {
    EXPECT_EQ(Bind(*control_, 0, 0), 0);
    EXPECT_EQ(Enable(*control_, 1), 0);
    tapout_ = std::make_unique<Fd>(Device("xdv-kvox_tapout0"), O_RDONLY);
  }
  KvoxPacketHeader Next(size_t size = kPacket) { return HeaderOf(tapout_->Read(size)); }
  TapBindRecord Command() const {
    return {{.size = sizeof(TapBindRecord), .opcode = CMD_KVOX_TAP_BIND_ID}, kMic, {}, 0, 0};
  }
  void Write(const TapBindRecord& record) { control_->Write(&record, sizeof record); }
  CMD_HDR ReadReply(size_t size) {
    CMD_HDR header;
    std::memcpy(&header, control_->Read(size).data(), sizeof header);
    return header;
  }

  std::unique_ptr<Process> sim_;
  std::unique_ptr<Fd> control_;
  std::unique_ptr<Fd> tapout_;
};

TEST_F(FaultWireTest, Replies) {
  StartWith("");
  Ctl("fault reply-status opcode=0xCA status=-7");
  EXPECT_EQ(Bind(*control_, 0, 0), 0) << "another opcode";
  EXPECT_EQ(Enable(*control_, 1), -7);
  EXPECT_EQ(Status()["taps"][0]["enabled"], false) << "it was not carried out";

  Ctl("fault reply-stale");
  Write(Command());
  EXPECT_EQ(ReadReply(16).opcode, CMD_KVOX_TAP_ENABLE_ID);
  EXPECT_EQ(ReadReply(18).opcode, CMD_KVOX_TAP_BIND_ID);

  Ctl("fault reply-short");
  Write(Command());
  EXPECT_EQ(ReadReply(9).size, 9);
  Ctl("fault reply-short torn=true");
  Write(Command());
  EXPECT_EQ(ReadReply(9).size, 18);

  Ctl("fault reply-opcode");
  Write(Command());
  EXPECT_NE(ReadReply(18).opcode, CMD_KVOX_TAP_BIND_ID);

  Ctl("fault reply-lost");
  Write(Command());
  EXPECT_EQ(Bind(*control_, 0xFF, 0), 0) << "the only reply there is";
  EXPECT_EQ(Status()["taps"][0]["tapout"], nullptr);

  Ctl("fault reply-late delay=0.02");
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(Bind(*control_, 0, 0), 0);
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(20));
}

TEST_F(FaultWireTest, DamagedPackets) {
  StartWith(R"(
fault = [
  { kind = "packet-drop", after = 2 },
  { kind = "packet-duplicate", after = 4 },
  { kind = "packet-magic", after = 5 },
  { kind = "packet-version", after = 6 },
  { kind = "packet-size", after = 7 },
  { kind = "packet-number", after = 8, packets = 90 },
  { kind = "packet-junk", after = 9, bytes = 12 },
  { kind = "packet-format", after = 10, count = 2 },
  { kind = "packet-cut", after = 12, tap = "imic.0" },
]
)");
  Stream();
  for (const uint32_t number : {1u, 2u, 4u, 5u, 5u}) {
    const KvoxPacketHeader header = Next();
    EXPECT_EQ(header.packet_num, number);
    EXPECT_EQ(header.format.sample_rate, 48000u) << "is kept";
  }
  EXPECT_NE(Next().magic, kPacketMagic);
  EXPECT_NE(Next().version, kPacketVersion);
  EXPECT_GT(Next().payload_size, kPacketMaxPayload);
  EXPECT_EQ(Next().packet_num, 99u);
  EXPECT_NE(HeaderOf(tapout_->Read(12 + kPacket)).magic, kPacketMagic);
  for (const uint32_t number : {11u, 12u}) {
    const KvoxPacketHeader header = Next(kPacketHeaderSize + 1920);
    EXPECT_EQ(header.packet_num, number);
    EXPECT_EQ(header.format.channels, 2);
    EXPECT_EQ(header.payload_size, 1920u);
  }
  EXPECT_EQ(Next(kPacket / 2).packet_num, 13u);
  EXPECT_EQ(Next().packet_num, 14u);
  EXPECT_EQ(Status()["taps"][0]["withheld"], 1);
  EXPECT_EQ(Fault("packet-format")["injected"], 2);
}

TEST_F(FaultWireTest, PacketsAtTheWrongTime) {
  StartWith(R"(
fault = [
  { kind = "packet-early", after = 2 },
  { kind = "packet-late", after = 4, delay = 0.05 },
  { kind = "packet-burst", after = 50, packets = 5 },
]
)");
  Stream();
  std::vector<uint64_t> stamps = {0};
  for (uint32_t number = 1; number <= 60; ++number) {
    const KvoxPacketHeader header = Next();
    EXPECT_EQ(header.packet_num, number);
    stamps.push_back(header.stamp);
  }
  EXPECT_EQ(stamps[3], stamps[2]) << "went with the one before it";
  EXPECT_GE(stamps[5] - stamps[4], 50 * kMs);
  EXPECT_EQ(stamps[6], stamps[5]) << "cannot overtake it";
  for (size_t number = 52; number <= 55; ++number) EXPECT_EQ(stamps[number], stamps[51]);
}

TEST_F(FaultWireTest, TapOutDevices) {
  StartWith("[[fault]]\nkind = \"tapout-hangup\"\ndevice = \"tapout0\"\nafter = 3\nfor = 0.1\n");
  Stream();
  for (int i = 1; i <= 3; ++i) Next();
  std::byte byte;
  EXPECT_TRUE(WaitFor([&] {
    while (read(tapout_->get(), &byte, 1) > 0) {
    }
    return read(tapout_->get(), &byte, 1) == 0;
  }));
  EXPECT_EQ(Next().packet_num, 1u) << "a stream of its own";

  Ctl("fault tapout-error device=tapout0");
  const Fd broken(Device("xdv-kvox_tapout0"), O_RDONLY);
  EXPECT_EQ(read(broken.get(), &byte, 1), -1);
  EXPECT_EQ(errno, EISDIR);
  Ctl("clear");
  tapout_ = std::make_unique<Fd>(Device("xdv-kvox_tapout0"), O_RDONLY);
  EXPECT_EQ(Next().packet_num, 1u);
}

TEST_F(FaultWireTest, InjectDevices) {
  StartWith("");
  Stream();
  Fd inject(Device("xdv-kvox_inject0"), O_WRONLY);
  Ctl("fault inject-stall device=inject0");
  const auto packet = tapout_->Read(kPacket);
  int written = 0;
  while (write(inject.get(), packet.data(), packet.size()) == ssize_t{kPacket}) ++written;
  EXPECT_EQ(errno, EAGAIN);
  EXPECT_EQ(Status()["taps"][0]["received"], 0);
  Ctl("clear");
  EXPECT_TRUE(WaitFor([&] { return Status()["taps"][0]["received"] == written; }));
  EXPECT_EQ(Status()["taps"][0]["exact"], 1);

  Ctl("fault inject-refuse device=inject0");
  EXPECT_EQ(write(inject.get(), packet.data(), packet.size()), -1);
  EXPECT_EQ(errno, EPIPE);
  EXPECT_EQ(open(Device("xdv-kvox_inject0").c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC), -1);
  EXPECT_EQ(errno, ENXIO);
  Ctl("clear");
  EXPECT_EQ(write(inject.get(), packet.data(), kPacket), ssize_t{kPacket});
  EXPECT_TRUE(WaitFor([&] { return Status()["taps"][0]["received"] == written + 1; }));
}

}  // namespace
}  // namespace kvox::sim
