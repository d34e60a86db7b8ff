#include <gtest/gtest.h>

#include <future>
#include <latch>
#include <vector>

#include "kvox/common/thread_group.h"
#include "processors/relay_layout.h"
#include "processors/sent_audio.h"
#include "tests/support/process.h"

namespace kvox {
namespace {

TEST(RelayLayout, InterleavesRunsAndBack) {
  const struct {
    KvoxTapFormat tap;
    std::vector<uint8_t> in_runs;
    std::vector<uint8_t> interleaved;
  } rows[] = {
      // Three frames in runs of two: the last run is shorter; half a frame after it is copied.
      {{.channels = 2, .bytes_per_sample = 1, .noninterleaved_samples = 2},
       {1, 2, 11, 12, 3, 13, 99},
       {1, 11, 2, 12, 3, 13, 99}},
      // Fewer frames than a run has.
      {{.channels = 3, .bytes_per_sample = 1, .noninterleaved_samples = 480},
       {1, 2, 11, 12, 21, 22},
       {1, 11, 21, 2, 12, 22}},
      // A header that names nothing.
      {{.channels = 2, .bytes_per_sample = 0, .noninterleaved_samples = 2}, {1, 2, 3}, {1, 2, 3}},
  };
  for (const auto& row : rows) {
    std::vector<uint8_t> out(row.in_runs.size());
    ToInterleaved(std::as_bytes(std::span(row.in_runs)), row.tap,
                  std::as_writable_bytes(std::span(out)));
    EXPECT_EQ(out, row.interleaved);
    FromInterleaved(std::as_bytes(std::span(row.interleaved)), row.tap,
                    std::as_writable_bytes(std::span(out)));
    EXPECT_EQ(out, row.in_runs);
  }
}

TEST(RelayLayout, TelephonyTakesTheFirstChannelAndFillsAll) {
  constexpr size_t kFrames = 2 * kTelephonyRun;
  std::vector<uint16_t> tap(2 * kFrames);
  for (size_t i = 0; i < tap.size(); ++i) tap[i] = static_cast<uint16_t>(i);
  std::vector<uint16_t> mono(kFrames);
  TakeFirstChannel(std::as_bytes(std::span(tap)), 2, std::as_writable_bytes(std::span(mono)));
  EXPECT_EQ(mono[479], 479);
  EXPECT_EQ(mono[480], 960) << "the second chunk's first channel";
  EXPECT_EQ(mono[959], 1439);
  SpreadOverChannels(std::as_bytes(std::span(mono)), 2, std::as_writable_bytes(std::span(tap)));
  EXPECT_EQ(tap[479], 479);
  EXPECT_EQ(tap[480], 0) << "the second channel gets the same";
  EXPECT_EQ(tap[960], 960);
  EXPECT_EQ(tap[1440], 960);
}

TEST(SentAudio, BlocksAreNeverTornAndNeverGoBack) {
  constexpr uint8_t kBlocks = 250;
  ByteBudget room(3 * 4096);
  SentAudio sent(4096, room);
  const std::future<void> writer = std::async(std::launch::async, [&] {
    for (uint8_t number = 1; number <= kBlocks; ++number) {
      sent.Put(std::vector<uint8_t>(4096, number));
      std::this_thread::yield();
    }
  });
  uint8_t last = 0;
  while (last != kBlocks) {
    std::span<const std::byte> block;
    ASSERT_TRUE(YieldUntil([&] { return !(block = sent.Take()).empty(); })) << +last;
    const auto number = static_cast<uint8_t>(block[0]);
    ASSERT_GT(number, last);
    for (const std::byte byte : block) ASSERT_EQ(static_cast<uint8_t>(byte), number);
    last = number;
  }
}

TEST(SentAudio, ItsRoomIsTakenOnceAndGivenBack) {
  ByteBudget room(20'000);
  const std::vector<uint8_t> block(6000, 1);
  {
    SentAudio first(block.size(), room);
    for (int i = 0; i < 4; ++i) EXPECT_TRUE(first.Put(block));
    SentAudio second(block.size(), room);
    EXPECT_FALSE(second.Put(block));
    EXPECT_TRUE(second.Take().empty());
    SentAudio call(1920, room);
    EXPECT_TRUE(call.Put(std::vector<uint8_t>(1920))) << "small ones always have room";
  }
  EXPECT_TRUE(room.Take(20'000));
}

TEST(ThreadGroup, JoinsWhatEndsAndRefusesTooMany) {
  std::atomic<int> ran = 0;
  {
    ThreadGroup reaper(2);
    std::latch release(1);
    const auto hang = [&] {
      release.wait();
      ++ran;
    };
    EXPECT_TRUE(reaper.Start("one", hang));
    EXPECT_TRUE(reaper.Start("two", hang));
    EXPECT_FALSE(reaper.Start("three", hang));
    EXPECT_EQ(reaper.running(), 2u);
    release.count_down();
    EXPECT_TRUE(WaitFor([&] { return reaper.running() == 0; }));
    for (int i = 0; i < 50; ++i) {
      EXPECT_TRUE(WaitFor([&] { return reaper.Start("more", [&] { ++ran; }); }));
    }
  }
  EXPECT_EQ(ran, 52) << "the reaper waits for all";
}

TEST(ThreadGroup, OneOwnerGetsItsShareOnly) {
  constexpr uint64_t kMe = 1;
  constexpr uint64_t kOther = 2;
  std::latch release(1);
  std::atomic<int> begun = 0;
  const auto hang = [&] {
    ++begun;
    release.wait();
  };
  ThreadGroup threads(4, 2);  // joins before the latch goes
  EXPECT_TRUE(threads.Start("mine", hang, kMe));
  const size_t mine = threads.Start("mine", hang, kMe);
  EXPECT_TRUE(mine);
  EXPECT_FALSE(threads.Start("mine", hang, kMe));
  EXPECT_TRUE(threads.Start("other", hang, kOther));
  EXPECT_TRUE(threads.Start("other", hang, kOther));
  EXPECT_TRUE(WaitFor([&] { return begun == 4; })) << "what has not begun yet can be replaced";

  std::atomic<bool> first = false;
  std::atomic<bool> second = false;
  EXPECT_EQ(threads.Start(
                "mine", [&] { first = true; }, kMe, mine),
            mine);
  EXPECT_EQ(threads.Start(
                "mine", [&] { second = true; }, kMe, mine),
            mine);
  EXPECT_FALSE(threads.Start("other", hang, kOther, mine)) << "it would be its third";
  release.count_down();
  EXPECT_TRUE(WaitFor([&] { return second.load(); })) << "on the thread that was there";
  EXPECT_FALSE(first) << "replaced before its turn";
  EXPECT_TRUE(WaitFor([&] {
    return threads.Start(
               "mine", [] {}, kMe) != 0;
  })) << "it has it back";
  EXPECT_TRUE(WaitFor([&] { return threads.running() == 0; }));
  EXPECT_TRUE(threads.Start("mine", hang, kMe, mine)) << "on a thread of its own again";
}

}  // namespace
}  // namespace kvox
