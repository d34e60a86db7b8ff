#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "libkvox/model/tables.h"

namespace kvox::client {
namespace {

using ::testing::ElementsAre;

// The texts are the daemon's own.

TEST(Tables, ProcessorsAreReadByColumn) {
  const auto reply =
      ParseProcessors({"Kvox processors: \n"
                       "  Id        Type      InBuffer  OutBuffer Enabled  \n"
                       "  art0      arel      -         -         0        \n"
                       "  pass      pass      tapout20  inject0   1        \n"
                       "  a b       pass      -         inject3   1        \n"
                       "  a\nb      pass      -         -         1        "});
  ASSERT_EQ(reply.rows.size(), 3u);
  EXPECT_EQ(reply.rows[0].id, "art0");
  EXPECT_EQ(reply.rows[0].type, "arel");
  EXPECT_EQ(reply.rows[0].input, "");
  EXPECT_FALSE(reply.rows[0].enabled);
  EXPECT_EQ(reply.rows[1].input, "tapout20");
  EXPECT_EQ(reply.rows[1].output, "inject0");
  EXPECT_TRUE(reply.rows[1].enabled);
  EXPECT_EQ(reply.rows[2].id, "a b");
  EXPECT_EQ(reply.unparsed, 2) << "a name that holds a line's end is counted, not guessed at";
  EXPECT_TRUE(ParseProcessors({"Kvox processors:   none"}).rows.empty());
}

TEST(Tables, TapPointsAreReadWithTheirFormat) {
  const auto reply = ParseTaps(
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
  ASSERT_EQ(reply.rows.size(), 3u);
  EXPECT_EQ(reply.unparsed, 1);
  EXPECT_EQ(reply.rows[0].FullName(), "3:imic.0");
  EXPECT_EQ(reply.rows[0].sample_rate_hz, 48000u);
  EXPECT_EQ(reply.rows[0].channels, 2u);
  EXPECT_EQ(reply.rows[0].encoding, 'i');
  EXPECT_EQ(reply.rows[0].bits, 16u);
  EXPECT_EQ(reply.rows[0].block_length_frames, 480u);
  EXPECT_EQ(reply.rows[1].Name(), "ab.255");
  EXPECT_EQ(reply.rows[1].sample_rate_hz, 44100u);
  EXPECT_EQ(reply.rows[1].noninterleaved_samples, 480u);
  EXPECT_EQ(reply.rows[1].jitter_buffer_frames, 4294967295u) << "wider than its column";
  EXPECT_EQ(reply.rows[1].tapout, "tapout0");
  EXPECT_TRUE(reply.rows[1].enabled);
  EXPECT_EQ(reply.rows[2].encoding, '?');
  EXPECT_EQ(reply.rows[2].inject, "inject2");

  EXPECT_FALSE(CoreReplied({"KVO tap list core:5", "  No tap points"}));
  EXPECT_TRUE(CoreReplied({"KVO tap list core:4", "  No tap points registered"}));
}

TEST(Tables, BuffersTellWhomTheyServe) {
  const auto tapouts =
      ParseBuffers(Direction::kTapOut, {"Tap-out buffers:",
                                        "  Id        Name      InProc    OutProc   Enabled\n"
                                        "  0         tapout0   -         pass      1        \n"
                                        "  20        tapout20  -         art0,a,b ,pas1 0        \n"
                                        "  41        tapout41  -         -         0        \n"
                                        "  42        tapout42  -         art0,art1,art2,a"});
  ASSERT_EQ(tapouts.rows.size(), 3u);
  EXPECT_EQ(tapouts.unparsed, 1) << "the daemon cuts long rows";
  ASSERT_EQ(tapouts.truncated.size(), 1u);
  EXPECT_EQ(tapouts.truncated[0].id, 42);
  EXPECT_EQ(tapouts.truncated[0].name, "tapout42");
  EXPECT_THAT(tapouts.rows[0].consumers, ElementsAre("pass"));
  EXPECT_TRUE(tapouts.rows[0].enabled);
  EXPECT_THAT(tapouts.rows[1].consumers, ElementsAre("art0", "a,b ", "pas1"));
  EXPECT_EQ(tapouts.rows[2].id, 41);
  EXPECT_TRUE(tapouts.rows[2].consumers.empty());

  const auto injects =
      ParseBuffers(Direction::kInject, {"Inject buffers:",
                                        "  Id        Name      InProc    OutProc   Enabled  \n"
                                        "  0         inject0   pass      -         1        "});
  ASSERT_EQ(injects.rows.size(), 1u);
  EXPECT_EQ(injects.rows[0].producer, "pass");
  EXPECT_TRUE(ParseBuffers(Direction::kTapOut, {"Tap-out buffers:", "  none\n"}).rows.empty());
  EXPECT_TRUE(ParseBuffers(Direction::kInject, {"Inject buffers:", "  none"}).rows.empty());
}

TEST(Tables, TheGraphIsReadStationByStation) {
  const auto reply = ParseGraph({"Connection graph:",
                                 "  NC --> NC --> art0 (disabled) --> NC --> NC\n"
                                 "  genp.0 --> tapout0 --> pass --> inject0 --> genp.1 (disabled)\n"
                                 "  half --> a --> line"});
  ASSERT_EQ(reply.rows.size(), 2u);
  EXPECT_EQ(reply.unparsed, 1);
  EXPECT_EQ(reply.rows[0].processor, "art0");
  EXPECT_EQ(reply.rows[0].source, "");
  EXPECT_FALSE(reply.rows[0].processor_enabled);
  EXPECT_EQ(reply.rows[1].source, "genp.0");
  EXPECT_TRUE(reply.rows[1].source_enabled);
  EXPECT_TRUE(reply.rows[1].processor_enabled);
  EXPECT_EQ(reply.rows[1].sink, "genp.1");
  EXPECT_FALSE(reply.rows[1].sink_enabled);
  const auto none = ParseGraph({"Connection graph:", "  No Kvox processors"});
  EXPECT_TRUE(none.rows.empty());
  EXPECT_EQ(none.unparsed, 0);
}

TEST(Tables, NamesFollowTheColon) {
  EXPECT_THAT(ParseNames({"Supported Kvox processors: pass arel phbt "}).rows,
              ElementsAre("pass", "arel", "phbt"));
  EXPECT_TRUE(ParseNames({"", "x:"}).rows.empty());
}

TEST(Tables, SettingsNeedEveryValue) {
  std::vector<aidl::kvox::IKvox::ParamValue> values;
  for (int32_t i = 1; i <= 5; ++i) {
    EXPECT_FALSE(ParseSettings(values));
    values.push_back(aidl::kvox::IKvox::ParamValue::make<aidl::kvox::IKvox::ParamValue::i>(i * 10));
  }
  const auto settings = ParseSettings(values);
  ASSERT_TRUE(settings);
  EXPECT_TRUE(settings->passthrough_mode);
  EXPECT_EQ(settings->block_length_frames, 30);
  EXPECT_EQ(settings->jitter_buffer_frames, 40);
  EXPECT_EQ(settings->channels, 50);
}

// Parsing any reply of a daemon ends, without leaks.
TEST(Tables, CutTextsAreNoTrouble) {
  const std::string table =
      "  Id        Format              BlockLen  NonInterl JitterBuf OutBuffer InBuffer  Enabled\n"
      "  imic.0    48kHz, 2ch, i16     480       0         0         -         -         0        ";
  for (size_t size = 0; size < table.size(); ++size) {
    const Lines lines = {table.substr(0, size)};
    EXPECT_LE(ParseTaps(2, lines).rows.size(), 1u);
    EXPECT_TRUE(ParseGraph(lines).rows.empty());
    ParseProcessors(lines);
    ParseBuffers(Direction::kInject, lines);
    ParseNames(lines);
  }
}

}  // namespace
}  // namespace kvox::client
