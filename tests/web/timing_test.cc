#include "web/server/timing.h"

#include <gtest/gtest.h>

namespace kvox::web {
namespace {

flight::PacketRecord Packet(uint32_t number, uint64_t arrived_us) {
  flight::PacketRecord packet{};
  packet.number = number;
  packet.arrived_ns = arrived_us * 1000;
  packet.period_ns = 10'000'000;
  packet.dispatch_ns = 31'000;
  return packet;
}

TEST(TimingTest, ErrorsAreTakenFromNumbersAndPeriods) {
  auto lost = Packet(4, 42'000);
  lost.loss = flight::Loss::kNoRoute;
  lost.missing = 2;
  lost.missing_because = flight::Loss::kJump;
  Timing timing("tapout0");
  EXPECT_EQ(timing.RowsOf({Packet(1, 10'000), lost}),
            Json::parse(R"([[1, 10.0, 0, null, 0, null, 31, 0],
                            [4, 42.0, 2000, "no_route", 2, "jump", 31, 0]])"));
  // The next call goes on from there; numbers that begin anew have no error.
  EXPECT_EQ(timing.RowsOf({Packet(5, 51'500), Packet(0, 70'000)}),
            Json::parse("[[5, 51.5, -500, null, 0, null, 31, 0],"
                        " [0, 70.0, 0, null, 0, null, 31, 0]]"));
}

}  // namespace
}  // namespace kvox::web
