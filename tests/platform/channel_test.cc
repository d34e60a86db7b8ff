// What ends a channel, and what its reader sees.
#include "platform/linux/channel.h"

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "platform/linux/closer.h"
#include "platform/linux/limits.h"
#include "tests/platform/lingering_socket.h"

namespace kvox::binder {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using Clock = std::chrono::steady_clock;

class ChannelTest : public ::testing::Test, protected ChannelOwner {
 protected:
  ChannelTest() {
    int ends[2];
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, ends), 0);
    peer_ = UniqueFd(ends[1]);
    EXPECT_TRUE(channel_.Open(base_.get(), UniqueFd(ends[0]), 1));
  }
  ~ChannelTest() override {
    // It may contain a descriptor that takes long.
    EXPECT_TRUE(Closer::Get().Start());
    Closer::Get().Close(broken_ ? std::move(socket_) : channel_.Close(), {1, 1});
    Closer::Get().Stop();
  }

  size_t OnInput(evbuffer* input) override {
    std::string bytes(evbuffer_get_length(input), 0);
    evbuffer_remove(input, bytes.data(), bytes.size());
    received_ += bytes;
    return 1;
  }
  void OnBroken(const char* fault) override {
    broken_ = true;
    fault_ = fault == nullptr ? "" : fault;
    socket_ = channel_.Close();
  }
  bool WantsInput() const override { return wants_input_; }
  void OnUnsent(size_t) override {}

  /// Runs the loop until the channel breaks, and `each` all the time.
  void RunUntilBroken(
      milliseconds most, const std::function<void()>& each = [] {}) {
    const auto end = Clock::now() + most;
    while (!broken_ && Clock::now() < end) {
      const timeval step{.tv_sec = 0, .tv_usec = 10'000};
      event_base_loopexit(base_.get(), &step);
      event_base_dispatch(base_.get());
      each();
    }
  }
  bool SendBytes(size_t size) {
    const std::vector<char> bytes(size);
    return channel_.Send({iovec{const_cast<char*>(bytes.data()), size}});
  }
  void Drain() {
    std::vector<char> bytes(1 << 20);
    while (recv(peer_.get(), bytes.data(), bytes.size(), 0) > 0) {
    }
  }

  struct FreeBase {
    void operator()(event_base* base) const { event_base_free(base); }
  };
  const std::unique_ptr<event_base, FreeBase> base_{event_base_new()};
  Channel channel_{*this, seconds(1)};
  UniqueFd peer_;
  UniqueFd socket_;  // of the broken channel
  std::string received_;
  bool wants_input_ = true;
  bool broken_ = false;
  std::string fault_;
};

TEST_F(ChannelTest, UrgentBytesAreOrdinaryOnes) {
  ASSERT_EQ(send(peer_.get(), "ab", 2, 0), 2);
  ASSERT_EQ(send(peer_.get(), "c", 1, MSG_OOB), 1);
  ASSERT_EQ(send(peer_.get(), "de", 2, 0), 2);
  RunUntilBroken(milliseconds(100));
  EXPECT_EQ(received_, "abcde");
  LingeringSocket lingering;
  ASSERT_TRUE(lingering.SendThrough(peer_.get(), MSG_OOB));
  ASSERT_EQ(send(peer_.get(), "abc", 3, 0), 3);
  const auto begin = Clock::now();
  RunUntilBroken(seconds(10));
  EXPECT_EQ(fault_, "descriptors");
  EXPECT_EQ(received_, "abcde");
  EXPECT_LT(Clock::now() - begin, seconds(3));
}

TEST_F(ChannelTest, TheTimeIsUpHoweverManyBytesComeAndHoweverReadingPauses) {
  channel_.LimitTime(seconds(1));
  const auto begin = Clock::now();
  RunUntilBroken(seconds(10), [&] {
    static_cast<void>(send(peer_.get(), "x", 1, MSG_NOSIGNAL));
    wants_input_ = !wants_input_;
    channel_.UpdateReading();
  });
  EXPECT_TRUE(broken_);
  EXPECT_GE(Clock::now() - begin, milliseconds(990));
  EXPECT_GT(received_.size(), 1u);
}

TEST_F(ChannelTest, BytesThatThePeerDoesNotTakeEndIt) {
  channel_.LimitTime(seconds(0));
  ASSERT_TRUE(SendBytes(8 * kPauseUnsentBytes));
  RunUntilBroken(milliseconds(100));
  Drain();
  RunUntilBroken(milliseconds(1500), [&] { Drain(); });
  EXPECT_FALSE(broken_) << "it took all";
  ASSERT_TRUE(SendBytes(kPauseUnsentBytes / 2));
  RunUntilBroken(milliseconds(1200));
  EXPECT_FALSE(broken_) << "few bytes may stay";
  ASSERT_TRUE(SendBytes(8 * kPauseUnsentBytes));
  RunUntilBroken(seconds(10));
  EXPECT_EQ(fault_, "calls, and did not read the replies");
}

}  // namespace
}  // namespace kvox::binder
