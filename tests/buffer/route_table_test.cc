#include "buffer/route_table.h"

#include <gtest/gtest.h>

#include <future>
#include <thread>

#include "processors/passthru_processor.h"
#include "tests/support/process.h"
#include "tests/support/scripted_device.h"

namespace kvox {
namespace {

std::unique_ptr<RouteTable> TableWith(std::shared_ptr<KvoxProcessor> processor) {
  auto table = std::make_unique<RouteTable>();
  table->routes.push_back({.processor = std::move(processor)});
  return table;
}

std::shared_ptr<KvoxProcessor> NewProcessor() {
  return std::make_shared<PassthruProcessor>(MakeFourCc("test"), MakeFourCc("test"));
}

TEST(RoutePublisher, KeepsATableInUseUntilTheReaderMovesOn) {
  RoutePublisher routes([] {});
  auto processor = NewProcessor();
  const std::weak_ptr<KvoxProcessor> watched = processor;
  routes.Publish(TableWith(std::move(processor)));
  {
    const RoutePublisher::Use table(routes);
    EXPECT_FALSE(routes.Superseded());
    routes.Publish(std::make_unique<RouteTable>());
    EXPECT_TRUE(routes.Superseded());
    routes.WaitForGracePeriod();  // on the reader's own thread: must not wait
    EXPECT_FALSE(watched.expired());
    EXPECT_EQ(table->routes.size(), 1u);
  }
  EXPECT_FALSE(watched.expired()) << "the reader destroys nothing";
  routes.WaitForGracePeriod();
  EXPECT_TRUE(watched.expired());
}

TEST(RoutePublisher, AGracePeriodLastsUntilTheNudgedReaderIsDone) {
  std::atomic<int> nudges = 0;
  RoutePublisher routes([&] { ++nudges; });
  std::atomic<bool> reading = false;
  const std::future<void> reader = std::async(std::launch::async, [&] {
    const RoutePublisher::Use table(routes);
    reading = true;
    EXPECT_TRUE(YieldUntil([&] { return nudges > 0; }));
  });
  ASSERT_TRUE(YieldUntil([&] { return reading.load(); }));
  routes.Publish(std::make_unique<RouteTable>());
  routes.WaitForGracePeriod();
  EXPECT_GE(nudges, 1);
}

TEST(RoutePublisher, ReaderAndPublisherNeverMeetOnADeadTable) {
  // Under the sanitizers a table or processor that is used after its end is caught.
  RoutePublisher routes([] {});
  std::atomic<bool> done = false;
  std::thread reader([&] {
    while (!done) {
      const RoutePublisher::Use table(routes);
      for (const Route& route : table->routes) EXPECT_EQ(route.processor->id(), MakeFourCc("test"));
    }
  });
  for (int i = 0; i < 2000; ++i) {
    routes.Publish(TableWith(NewProcessor()));
    if (i % 3 == 0) routes.WaitForGracePeriod();
  }
  done = true;
  reader.join();
}

/// A waiter that counts down the waits it grants.
class CountedWaiter : public IoWaiter {
 public:
  explicit CountedWaiter(int waits) : waits_(waits) {}
  bool WaitWritable(int, uint64_t) override { return waits_-- > 0; }
  bool WaitReadable(int, uint64_t) override { return false; }
  uint64_t NowNs() override { return 0; }

 private:
  int waits_;
};

class InjectPortTest : public ::testing::Test {
 protected:
  class Silence : public PacketRecorder {
    void Record(const KvoxPacketHeader&, std::span<const std::byte>) override {}
    bool recording() const override { return false; }
    uint32_t samples() const override { return 0; }
  };

  int32_t Send(int waits) {
    CountedWaiter waiter(waits);
    Bytes packet = packet_;
    KvoxPacketHeader header = HeaderOf(packet);
    header.stamp = 5;
    SendPatience patience(header, waiter);
    const int32_t status = port_.SendInPlace(header, packet.data(), patience);
    EXPECT_EQ(packet, packet_) << "the packet is as it was";
    return status;
  }

  ScriptedDevice device_;
  Silence recorder_;
  const Bytes packet_ = MakePacket(1, 480);
  InjectPort port_{"inject0", "/inject0", device_, recorder_, ScriptedDevice::kInjectFd};
};

TEST_F(InjectPortTest, FinishesAPacketThatTheDeviceTakesInPieces) {
  device_.write_limits = {100, 0, 200};
  EXPECT_EQ(Send(5), kPortOk);
  ASSERT_EQ(device_.written.size(), 3u);
  const Bytes whole = device_.written[0] + device_.written[1] + device_.written[2];
  EXPECT_EQ(whole.size(), packet_.size());
  EXPECT_EQ(whole[8], std::byte{5}) << "with the header it was given";
  EXPECT_TRUE(device_.opened.empty());
}

TEST_F(InjectPortTest, ATornDeviceStartsAfreshAFullOneDoesNot) {
  device_.write_limits = {0};
  EXPECT_EQ(Send(0), kPortWriteFailed);
  EXPECT_TRUE(device_.opened.empty()) << "nothing of the packet went out";
  device_.write_limits = {100, 0};
  EXPECT_EQ(Send(1), kPortWriteFailed);
  EXPECT_EQ(device_.closed.size(), 1u);
  EXPECT_EQ(device_.opened, (std::vector<std::string>{"/inject0"}));
  EXPECT_EQ(Send(0), kPortOk);
}

TEST_F(InjectPortTest, KeepsForDumpsOnlyWhatItHasSent) {
  CountedWaiter waiter(0);
  Bytes packet = packet_;
  const KvoxPacketHeader header = HeaderOf(packet);
  SendPatience patience(header, waiter);
  ASSERT_EQ(port_.SendInPlace(header, packet.data(), patience), kPortOk);
  Bytes copy;
  const Bytes same_elsewhere = packet_;
  port_.KeepSentPacket(same_elsewhere.data() + kPacketHeaderSize);
  EXPECT_FALSE(port_.CopyTo(copy)) << "of another reader";
  const Bytes next = MakePacket(2, 480);
  std::ranges::copy(next, packet.begin());
  port_.KeepSentPacket(packet.data() + kPacketHeaderSize);
  EXPECT_FALSE(port_.CopyTo(copy)) << "overwritten by a packet that went elsewhere";
  std::ranges::copy(packet_, packet.begin());
  port_.KeepSentPacket(packet.data() + kPacketHeaderSize);
  EXPECT_TRUE(port_.CopyTo(copy));
  EXPECT_TRUE(std::equal(packet_.begin(), packet_.end(), copy.begin()));

  device_.write_limits = {0};
  EXPECT_EQ(Send(0), kPortWriteFailed);
  EXPECT_TRUE(port_.CopyTo(copy)) << "a packet that was not sent replaces nothing";
  const auto send_built = [&](const Bytes& built) {
    std::ranges::copy(AudioOf(built), port_.PayloadArea(kPacketMaxPayload).begin());
    return port_.SendBuilt(HeaderOf(built), patience);
  };
  const auto sent = [&](const Bytes& built) {
    return port_.CopyTo(copy) && std::ranges::equal(built, std::span(copy).first(built.size())) &&
           std::ranges::count(std::span(copy).subspan(built.size()), std::byte{}) ==
               std::ssize(copy) - std::ssize(built);
  };
  ASSERT_EQ(send_built(MakePacket(3, 1920)), kPortOk);
  EXPECT_TRUE(sent(MakePacket(3, 1920)));
  ASSERT_EQ(send_built(MakePacket(4, 480)), kPortOk);
  EXPECT_TRUE(sent(MakePacket(4, 480))) << "nothing of the longer one before";
  device_.write_limits = {0};
  EXPECT_EQ(send_built(packet_), kPortWriteFailed);
  EXPECT_FALSE(port_.CopyTo(copy)) << "its place holds what was not sent";
}

TEST_F(InjectPortTest, ErrorsAreAnsweredAndClosedDevicesAreTriedAgain) {
  device_.write_limits = {0};
  device_.write_errno = EPIPE;
  EXPECT_EQ(Send(5), kPortWriteFailed);
  device_.write_errno = EAGAIN;
  device_.open_errors = 2;
  device_.write_limits = {64};
  EXPECT_EQ(Send(0), kPortWriteFailed);
  EXPECT_EQ(Send(0), kPortClosed);
  EXPECT_EQ(Send(0), kPortOk);
}

}  // namespace
}  // namespace kvox
