// Effects of faults on the audio in packets.
#include "sim/faults/packet_faults.h"

#include <gtest/gtest.h>

#include "tests/support/bytes.h"

namespace kvox::sim {
namespace {

TEST(PacketFaults, AnotherFormatCarriesTheSameFrames) {
  const FaultConfig fault{.kind = FaultKind::kPacketFormat};
  const KvoxTapFormat mono{.sample_rate = 48000, .channels = 1, .bytes_per_sample = 2};
  const auto stereo = ChangedFormat(std::span(&fault, 1), mono, 480);
  ASSERT_TRUE(stereo);
  EXPECT_EQ(stereo->channels, 2);
  EXPECT_EQ(ChangedFormat(std::span(&fault, 1), *stereo, 480)->channels, 1);
  EXPECT_FALSE(ChangedFormat({}, mono, 480));
  EXPECT_FALSE(ChangedFormat(std::span(&fault, 1), mono, 32736)) << "no packet is that long";
  const Bytes audio = {std::byte{1}, std::byte{2}, std::byte{3}, std::byte{4}};
  const auto both = Remix(audio, mono, *stereo);
  EXPECT_EQ(both.size(), 8u);
  EXPECT_EQ(both[2], std::byte{1}) << "the right channel has what the left one has";
  EXPECT_EQ(Remix(both, *stereo, mono), audio);
}

}  // namespace
}  // namespace kvox::sim
