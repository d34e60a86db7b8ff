#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "client/model/tables.h"

namespace kvox::client {
namespace {

using ::testing::ElementsAre;

// The texts are the daemon's own.

TEST(Tables, ProcessorsAreReadByColumn) {
  const auto rows =
      ReadProcessors({"Kvox processors: \n"
                      "  Id        Type      InBuffer  OutBuffer Enabled  \n"
                      "  art0      arel      -         -         0        \n"
                      "  pass      pass      tapout20  inject0   1        \n"
                      "  a b       pass      -         inject3   1        \n"
                      "  a\nb      pass      -         -         1        "});
  ASSERT_EQ(rows.items.size(), 3u);
  EXPECT_EQ(rows.items[0].id, "art0");
  EXPECT_EQ(rows.items[0].type, "arel");
  EXPECT_EQ(rows.items[0].input, "");
  EXPECT_FALSE(rows.items[0].enabled);
  EXPECT_EQ(rows.items[1].input, "tapout20");
  EXPECT_EQ(rows.items[1].output, "inject0");
  EXPECT_TRUE(rows.items[1].enabled);
  EXPECT_EQ(rows.items[2].id, "a b");
  EXPECT_EQ(rows.unread, 2) << "a name that holds a line's end is counted, not guessed at";
  EXPECT_TRUE(ReadProcessors({"Kvox processors:   none"}).items.empty());
}

TEST(Tables, TapPointsAreReadWithTheirFormat) {
  const auto rows = ReadTaps(
      3, {"KVO tap list core:3",
          "  Id        Format              BlockLen  NonInterl JitterBuf OutBuffer InBuffer  "
          "Enabled  \n"
          "  imic.0    48kHz, 2ch, i16     480       0         0         -         -         0   "
          "     \n"
          "    ab.255   44.1kHz, 12ch, f32  4800      480       4294967295 tapout0   inject0   1   "
          "     \n"
          "  sspk.1    0kHz, 0ch, ?0       0         0         0         -         inject2   7   "
          "     \n"
          "  cut"});
  ASSERT_EQ(rows.items.size(), 3u);
  EXPECT_EQ(rows.unread, 1);
  EXPECT_EQ(rows.items[0].FullName(), "3:imic.0");
  EXPECT_EQ(rows.items[0].sample_rate_hz, 48000u);
  EXPECT_EQ(rows.items[0].channels, 2u);
  EXPECT_EQ(rows.items[0].encoding, 'i');
  EXPECT_EQ(rows.items[0].bits, 16u);
  EXPECT_EQ(rows.items[0].block_length_frames, 480u);
  EXPECT_EQ(rows.items[1].Name(), "ab.255");
  EXPECT_EQ(rows.items[1].sample_rate_hz, 44100u);
  EXPECT_EQ(rows.items[1].noninterleaved_samples, 480u);
  EXPECT_EQ(rows.items[1].jitter_buffer_frames, 4294967295u) << "wider than its column";
  EXPECT_EQ(rows.items[1].tapout, "tapout0");
  EXPECT_TRUE(rows.items[1].enabled);
  EXPECT_EQ(rows.items[2].encoding, '?');
  EXPECT_EQ(rows.items[2].inject, "inject2");

  EXPECT_FALSE(CoreAnswered({"KVO tap list core:5", "  No tap points"}));
  EXPECT_TRUE(CoreAnswered({"KVO tap list core:4", "  No tap points registered"}));
}

TEST(Tables, BuffersTellWhomTheyServe) {
  const auto tapouts =
      ReadBuffers(Direction::kTapOut, {"Tap-out buffers:",
                                       "  Id        Name      InProc    OutProc   Enabled\n"
                                       "  0         tapout0   -         pass      1        \n"
                                       "  20        tapout20  -         art0,a,b ,pas1 0        \n"
                                       "  41        tapout41  -         -         0        \n"
                                       "  42        tapout42  -         art0,art1,art2,a"});
  ASSERT_EQ(tapouts.items.size(), 3u);
  EXPECT_EQ(tapouts.unread, 1) << "the daemon cuts long rows";
  ASSERT_EQ(tapouts.cut.size(), 1u);
  EXPECT_EQ(tapouts.cut[0].id, 42);
  EXPECT_EQ(tapouts.cut[0].name, "tapout42");
  EXPECT_THAT(tapouts.items[0].consumers, ElementsAre("pass"));
  EXPECT_TRUE(tapouts.items[0].enabled);
  EXPECT_THAT(tapouts.items[1].consumers, ElementsAre("art0", "a,b ", "pas1"));
  EXPECT_EQ(tapouts.items[2].id, 41);
  EXPECT_TRUE(tapouts.items[2].consumers.empty());

  const auto injects =
      ReadBuffers(Direction::kInject, {"Inject buffers:",
                                       "  Id        Name      InProc    OutProc   Enabled  \n"
                                       "  0         inject0   pass      -         1        "});
  ASSERT_EQ(injects.items.size(), 1u);
  EXPECT_EQ(injects.items[0].producer, "pass");
  EXPECT_TRUE(ReadBuffers(Direction::kTapOut, {"Tap-out buffers:", "  none\n"}).items.empty());
  EXPECT_TRUE(ReadBuffers(Direction::kInject, {"Inject buffers:", "  none"}).items.empty());
}

TEST(Tables, TheGraphIsReadStationByStation) {
  const auto rows = ReadGraph({"Connection graph:",
                               "  NC --> NC --> art0 (disabled) --> NC --> NC\n"
                               "  genp.0 --> tapout0 --> pass --> inject0 --> genp.1 (disabled)\n"
                               "  half --> a --> line"});
  ASSERT_EQ(rows.items.size(), 2u);
  EXPECT_EQ(rows.unread, 1);
  EXPECT_EQ(rows.items[0].processor, "art0");
  EXPECT_EQ(rows.items[0].source, "");
  EXPECT_FALSE(rows.items[0].processor_enabled);
  EXPECT_EQ(rows.items[1].source, "genp.0");
  EXPECT_TRUE(rows.items[1].source_enabled);
  EXPECT_TRUE(rows.items[1].processor_enabled);
  EXPECT_EQ(rows.items[1].sink, "genp.1");
  EXPECT_FALSE(rows.items[1].sink_enabled);
  const auto none = ReadGraph({"Connection graph:", "  No Kvox processors"});
  EXPECT_TRUE(none.items.empty());
  EXPECT_EQ(none.unread, 0);
}

TEST(Tables, NamesFollowTheColon) {
  EXPECT_THAT(ReadNames({"Supported Kvox processors: pass arel phbt "}),
              ElementsAre("pass", "arel", "phbt"));
  EXPECT_TRUE(ReadNames({"", "x:"}).empty());
}

TEST(Tables, SettingsNeedEveryValue) {
  std::vector<aidl::kvox::IKvox::ParamValue> values;
  for (int32_t i = 1; i <= 9; ++i) {
    EXPECT_FALSE(ReadSettings(values));
    values.push_back(aidl::kvox::IKvox::ParamValue::make<aidl::kvox::IKvox::ParamValue::i>(i * 10));
  }
  const auto settings = ReadSettings(values);
  ASSERT_TRUE(settings);
  EXPECT_TRUE(settings->passthrough_mode);
  EXPECT_EQ(settings->block_length_frames, 30);
  EXPECT_EQ(settings->jitter_buffer_frames, 40);
  EXPECT_EQ(settings->channels, 80);
}

// Whatever a daemon answers, reading it ends and holds on to nothing.
TEST(Tables, CutTextsAreNoTrouble) {
  const std::string table =
      "  Id        Format              BlockLen  NonInterl JitterBuf OutBuffer InBuffer  Enabled\n"
      "  imic.0    48kHz, 2ch, i16     480       0         0         -         -         0        ";
  for (size_t size = 0; size < table.size(); ++size) {
    const Lines lines = {table.substr(0, size)};
    EXPECT_LE(ReadTaps(2, lines).items.size(), 1u);
    EXPECT_TRUE(ReadGraph(lines).items.empty());
    ReadProcessors(lines);
    ReadBuffers(Direction::kInject, lines);
    ReadNames(lines);
  }
}

}  // namespace
}  // namespace kvox::client
