// kvosim record and replay between real programs.
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>

#include "sim/recording/pcapng.h"
#include "tests/system/system_fixture.h"

namespace kvox {
namespace {

using sim::NodeEvent;
using sim::NodeRecord;
using testing::HasSubstr;

class RecordTest : public SystemTest {
 protected:
  RecordTest() { std::filesystem::create_directory(phone_); }
  void TearDown() override { setenv("KVOX_DEV_DIR", dev_.c_str(), 1); }

  void StartPhone() {
    AtPhone([&] {
      simulator_ = std::make_unique<Process>(
          KVOSIM_PROGRAM,
          std::vector<std::string>{"--scenario", KVOX_REPLAYS "/phone.toml", "--stats",
                                   (directory_ / "stats.json").string()},
          directory_ / "kvosim");
      ASSERT_TRUE(WaitFor([&] { return exists(phone_ / ".kvosim.ctl"); }));
    });
  }

  /// Between simulator and daemon.
  void StartRecorder(std::vector<std::string> options = {}) {
    options.insert(options.begin(), {"record", "--from", phone_, "--to", dev_, file_});
    Start(KVOSIM_PROGRAM, options);
  }
  void Start(const std::string& program, const std::vector<std::string>& words) {
    recorder_ = std::make_unique<Process>(program, words, directory_ / "recorder");
    ASSERT_TRUE(WaitFor([&] { return exists(dev_ / "xdv-kvox_tapout1"); })) << recorder_->Err();
  }

  /// A path through the daemon and back.
  void Route() {
    StartDaemon();
    Do("wait tap voic.0 --timeout 20");
    Do("route voic.0 pass voic.0");
  }
  void ExpectAudio(int64_t packets = 12) {
    const int64_t before = Figure("voic.0", "exact");
    EXPECT_TRUE(WaitFor([&] { return Figure("voic.0", "exact") > before + packets; }));
    EXPECT_EQ(Figure("voic.0", "different"), 0);
  }

  void AtPhone(const std::function<void()>& act) {
    setenv("KVOX_DEV_DIR", phone_.c_str(), 1);
    act();
    setenv("KVOX_DEV_DIR", dev_.c_str(), 1);
  }

  std::vector<NodeRecord> ReadRecords() const {
    std::ifstream stream(file_, std::ios::binary);
    const std::string text(std::istreambuf_iterator<char>(stream), {});
    sim::PcapngReader reader(std::as_bytes(std::span(text)));
    std::vector<NodeRecord> records;
    for (NodeRecord record; reader.Next(record);) records.push_back(record);
    EXPECT_FALSE(reader.cut());
    return records;
  }

  const std::filesystem::path dev_ = directory_ / "dev";
  const std::filesystem::path phone_ = directory_ / "phone";
  const std::filesystem::path file_ = directory_ / "phone.pcapng";
  std::unique_ptr<Process> recorder_;
};

TEST_F(RecordTest, PassesEverythingOnAndReplaysItAlike) {
  StartPhone();
  StartRecorder();
  Route();
  ExpectAudio();
  AtPhone([&] { Fault("restart gap=0.3"); });
  ExpectAudio();
  AtPhone([&] { Fault("restart gap=60"); });  // the recording ends with the last packet's way
  ASSERT_TRUE(WaitFor([&] { return !exists(dev_ / "xdv-kvox_control"); }));
  recorder_->Signal(SIGTERM);
  EXPECT_EQ(recorder_->Wait(), 0) << recorder_->Err();
  EXPECT_GT(ReadRecords().size(), 90u);
  simulator_.reset();
  for (int round = 0; round < 2; ++round) {
    daemon_.reset();
    Start(KVOSIM_PROGRAM, {"replay", "--check", file_});
    Route();
    EXPECT_EQ(recorder_->Wait(), 0) << recorder_->Out();
    EXPECT_THAT(recorder_->Out(), HasSubstr("the same"));
  }
}

TEST_F(RecordTest, AKilledRecorderLeavesAWholeFileWithoutAudioIfThatIsWanted) {
  StartPhone();
  StartRecorder({"--no-audio"});
  Route();
  ExpectAudio();
  recorder_->Signal(SIGKILL);
  recorder_->Wait();
  size_t headers = 0;
  for (const NodeRecord& record : ReadRecords()) {
    if (record.event != NodeEvent::kData || record.node == "xdv-kvox_control") continue;
    EXPECT_LE(record.bytes.size(), 64u);
    if (record.bytes.size() == 64) ++headers;
  }
  EXPECT_GT(headers, 15u);
}

TEST_F(RecordTest, AFullDiskEndsTheRecordingAndNothingElse) {
  StartPhone();
  const std::string command = "trap '' XFSZ; ulimit -f 60; exec " KVOSIM_PROGRAM " record --from " +
                              phone_.string() + " --to " + dev_.string() + " " + file_.string();
  Start("/bin/sh", {"-c", command});
  Route();
  EXPECT_TRUE(WaitFor([&] { return CountOf("the recording ends here", recorder_->Err()) == 1; }));
  ExpectAudio();
  recorder_->Signal(SIGTERM);
  EXPECT_EQ(recorder_->Wait(), 1);
  EXPECT_GT(ReadRecords().size(), 30u);
}

/// Each is played to a daemon and its clients, which must do as they did.
TEST_F(RecordTest, RecordingsOfTroublesReplayAlike) {
  const struct {
    const char* name;
    std::vector<std::string> client;
  } replays[] = {
      {"packets", {"route voic.0 pass voic.0"}},
      {"replies",
       {"tap enable 2:loop.0", "tap block-length 2:loop.0 160", "tap enable 2:loop.0",
        "tap jitter-buffer 2:loop.0 20", "tap disable 2:loop.0", "tap gain 2:loop.0 3",
        "route voic.0 pass voic.0"}},
  };
  for (const auto& replay : replays) {
    SCOPED_TRACE(replay.name);
    daemon_.reset();
    Start(KVOSIM_PROGRAM,
          {"replay", "--check", std::string(KVOX_REPLAYS "/") + replay.name + ".pcapng"});
    StartDaemon();
    Do("wait tap voic.0 --timeout 20");
    for (const std::string& line : replay.client) Run(Words(line));
    EXPECT_EQ(recorder_->Wait(), 0) << recorder_->Out();
    EXPECT_THAT(recorder_->Out(), HasSubstr("the same"));
  }
}

}  // namespace
}  // namespace kvox
