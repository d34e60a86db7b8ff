// Books: what a stream's counters and records say about the packets that came.
#include "kvox/flight/stream_log.h"

#include <gtest/gtest.h>

#include <memory>

#include "kvox/flight/reader.h"

namespace kvox::flight {
namespace {

constexpr uint32_t kPeriod = 10'000'000;

class StreamLogTest : public ::testing::Test {
 protected:
  /// A packet a period after the one before.
  PacketRecord Packet(uint32_t number) {
    PacketRecord packet = {};
    packet.number = number;
    packet.stamp = now_ns_;
    packet.arrived_ns = now_ns_;
    packet.period_ns = kPeriod;
    now_ns_ += kPeriod;
    return packet;
  }
  void Dispatch(uint32_t number) { log_.Add(Packet(number)); }
  void Lose(uint32_t number, Loss why) {
    PacketRecord packet = Packet(number);
    packet.loss = why;
    log_.Add(packet);
  }
  uint64_t Lost(Loss why) const { return slot_->lost[static_cast<size_t>(why)].load(); }
  uint64_t Lost() const {
    uint64_t sum = 0;
    for (const Word& count : slot_->lost) sum += count.load();
    return sum;
  }
  PacketRecord Last() const {
    const uint64_t sequence = slot_->packets.load() - 1;
    PacketRecord record;
    EXPECT_TRUE(Unseal(slot_->records[sequence % kPackets], sequence, record));
    return record;
  }

  const std::unique_ptr<StreamSlot> slot_ = std::make_unique<StreamSlot>();
  StreamLog log_{slot_.get()};
  uint64_t now_ns_ = 1'000'000'000;
};

TEST_F(StreamLogTest, EachNumberIsDispatchedOrLostForOneReason) {
  Dispatch(100);
  Dispatch(101);
  Dispatch(105);  // 102 to 104 were not sent
  EXPECT_EQ(Last().missing, 3);
  EXPECT_EQ(Last().missing_because, Loss::kJump);
  Lose(106, Loss::kInjectFull);
  log_.Junk(Loss::kHeader, 64);
  log_.Junk(Loss::kNoMagic, 8);  // the first reason counts
  Dispatch(109);
  EXPECT_EQ(Last().missing_because, Loss::kHeader);
  Lose(110, Loss::kSlip);
  Dispatch(112);  // what a resync skips goes to the same account
  EXPECT_EQ(Lost(Loss::kJump), 3u);
  EXPECT_EQ(Lost(Loss::kInjectFull), 1u);
  EXPECT_EQ(Lost(Loss::kHeader), 2u);
  EXPECT_EQ(Lost(Loss::kNoMagic), 0u);
  EXPECT_EQ(Lost(Loss::kSlip), 2u);
  EXPECT_EQ(slot_->dispatched.load() + Lost(), 112u - 100 + 1);
  EXPECT_EQ(slot_->junk_bytes.load(), 72u);
}

TEST_F(StreamLogTest, WhatFollowsBytesLeftOverIsCountedAsExcess) {
  PacketRecord packet = Packet(1);
  packet.left_over = 2048;
  log_.Add(packet);
  Dispatch(3);
  Dispatch(5);  // not that one
  EXPECT_EQ(Lost(Loss::kExcess), 1u);
  EXPECT_EQ(Lost(Loss::kJump), 1u);
}

TEST_F(StreamLogTest, RepeatedAndRenumberedPacketsAreNoLosses) {
  Dispatch(0xFFFFFFFF);
  Dispatch(0);  // numbers wrap
  Dispatch(1);
  EXPECT_EQ(Last().flags & kFirst, 0);
  Dispatch(1);  // again
  EXPECT_EQ(Last().flags, kRepeated);
  Dispatch(2);
  EXPECT_EQ(Last().flags, 0);
  log_.Junk(Loss::kHeader, 64);
  Dispatch(0);  // out of order
  Dispatch(4);
  EXPECT_EQ(Last().missing_because, Loss::kHeader) << "a repeated packet explains nothing";
  EXPECT_EQ(slot_->repeated.load(), 2u);
  EXPECT_EQ(slot_->renumbered.load(), 0u);
  EXPECT_EQ(slot_->dispatched.load() + Lost(), 6u);

  for (uint32_t number = 1; number <= 3; ++number) Dispatch(number);  // from the beginning
  EXPECT_EQ(slot_->renumbered.load(), 1u);
  EXPECT_EQ(slot_->repeated.load(), 3u) << "only the second one tells";
  Dispatch(5'000'000);  // no stream loses half a day
  Dispatch(5'000'001);
  EXPECT_EQ(slot_->renumbered.load(), 2u);
  EXPECT_EQ(Lost(), 1u);
}

TEST_F(StreamLogTest, ArrivalErrorsAreThoseOfSuccessivePackets) {
  Dispatch(1);
  now_ns_ += 2'000'000;
  Dispatch(2);
  now_ns_ += 5'000'000;
  Dispatch(4);  // one is missing: its period is unknown
  now_ns_ += 3'000'000;
  Dispatch(4);  // again: that says nothing of the next one
  now_ns_ -= 3'000'000 + kPeriod;
  uint64_t total = 0;
  for (const Word& count : slot_->arrival_error.counts) total += count.load();
  EXPECT_EQ(total, 1u);
  EXPECT_EQ(slot_->arrival_error.sum.load(), 2'000'000u);
  EXPECT_EQ(slot_->arrival_error.counts[BucketOf(2'000'000)].load(), 1u);
}

TEST_F(StreamLogTest, EachTimeHasItsHistogram) {
  PacketRecord packet = Packet(1);
  packet.routes = 1;
  packet.slowest_ns = 100'000;
  packet.write_ns = 200'000;
  packet.written = 1;
  packet.client_ns = 400'000;
  packet.arrival = Arrival::kLate;
  log_.Add(packet);
  packet = Packet(2);  // no route
  packet.arrival = Arrival::kEarly;
  log_.Add(packet);
  EXPECT_EQ(slot_->processing.sum.load(), 100'000u);
  EXPECT_EQ(slot_->processing.counts[0].load(), 0u) << "nothing was processed";
  EXPECT_EQ(slot_->writing.sum.load(), 200'000u);
  EXPECT_EQ(slot_->client.sum.load(), 400'000u);
  EXPECT_EQ(slot_->late.load(), 1u);
  EXPECT_EQ(slot_->early.load(), 1u);
}

TEST_F(StreamLogTest, ARecordThatIsNotWholeIsRecognised) {
  for (uint32_t i = 0; i < kPackets + 10; ++i) Dispatch(i);
  const auto readable = [&](uint64_t sequence) {
    PacketRecord record;
    return Unseal(slot_->records[sequence % kPackets], sequence, record);
  };
  EXPECT_TRUE(readable(kPackets + 9));
  EXPECT_TRUE(readable(10));
  EXPECT_FALSE(readable(9));  // overwritten
  for (size_t word = 0; word < slot_->records[20].size(); ++word) {
    const uint64_t before = slot_->records[20][word].fetch_xor(uint64_t{1} << (7 * word));
    EXPECT_FALSE(readable(20)) << word;
    slot_->records[20][word] = before;
  }
  EXPECT_TRUE(readable(20));
}

TEST(HistogramTest, BucketsAreAQuarterOfAnOctave) {
  for (size_t bucket = 0; bucket + 1 < kBuckets; ++bucket) {
    EXPECT_EQ(BucketOf(BucketFloor(bucket)), bucket);
    EXPECT_EQ(BucketOf(BucketFloor(bucket + 1) - 1), bucket);
  }
  EXPECT_EQ(BucketOf(UINT64_MAX), kBuckets - 1);
  Distribution times;
  EXPECT_EQ(times.Percentile(0.5), std::nullopt);
  for (uint64_t us = 1; us <= 1000; ++us) ++times.counts[BucketOf(us * 1000)];
  EXPECT_NEAR(static_cast<double>(*times.Percentile(0.5)), 500'000, 100'000);
  EXPECT_NEAR(static_cast<double>(*times.Percentile(0.99)), 990'000, 200'000);
}

}  // namespace
}  // namespace kvox::flight
