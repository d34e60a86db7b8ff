#include "client/model/snapshot.h"

#include "tests/system/client_fixture.h"

namespace kvox::client {
namespace {

using ::testing::ElementsAre;

class SnapshotTest : public ClientMachineTest {
 protected:
  Daemon kvoxd_{std::chrono::seconds(20)};
};

TEST_F(SnapshotTest, HasEverythingThatTheDaemonTells) {
  StartBoth();
  Do("usecase enable AREL_TELE");
  Do("processor new pass");
  Do("connect pass tapout0 inject0");
  Do("param set pass BLOCK_LENGTH 960");
  Do("tap connect genp.1 tapout0 inject1");
  const Snapshot snapshot = ReadSnapshot(kvoxd_);
  EXPECT_THAT(snapshot.types, ElementsAre("pass", "arel", "phbt"));
  EXPECT_EQ(snapshot.processors.size(), 3u);
  const Processor* const pass = FindProcessor(snapshot.processors, "pass");
  ASSERT_NE(pass, nullptr);
  EXPECT_EQ(pass->input, "tapout0");
  ASSERT_TRUE(pass->settings);
  EXPECT_EQ(pass->settings->block_length_frames, 960);
  EXPECT_EQ(snapshot.taps.size(), 10u);
  EXPECT_EQ(snapshot.taps[5].FullName(), "2:genp.1");
  EXPECT_EQ(snapshot.taps[5].inject, "inject1");
  EXPECT_TRUE(snapshot.silent_cores.empty());
  EXPECT_EQ(snapshot.tapouts.size(), 8u);
  EXPECT_THAT(FindBuffer(snapshot.tapouts, "tapout0")->consumers, ElementsAre("pass"));
  EXPECT_EQ(FindBuffer(snapshot.injects, "inject0")->producer, "pass");
  EXPECT_EQ(snapshot.use_cases[3].enabled, true);
  EXPECT_EQ(snapshot.use_cases[1].enabled, std::nullopt);
  EXPECT_EQ(snapshot.unread, 0);
}

TEST_F(SnapshotTest, NamesTheCoresThatAreSilent) {
  StartDaemon();
  EXPECT_THAT(ReadSnapshot(kvoxd_).silent_cores, ElementsAre(2, 3, 4));
}

}  // namespace
}  // namespace kvox::client
