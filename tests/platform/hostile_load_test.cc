// Peers that send or leave too much, or never end, are held to their limits and delay nobody.
#include <sys/resource.h>

#include <atomic>
#include <functional>
#include <thread>

#include "kvox/common/log.h"
#include "tests/platform/hostile_peer_fixture.h"

namespace kvox::binder {
namespace {

using HostileLoadTest = HostilePeerTest;

/// Neither silence nor a few bytes now and then keep a place for long.
TEST_F(HostileLoadTest, LargeFramesThatDoNotEndGiveWayToOthers) {
  std::vector<RawPeer> holders;
  for (int i = 0; i < kLargeFrames.of_privileged_user; ++i) {
    RawPeer& holder = holders.emplace_back(Path());
    holder.Greet();
    Frame frame = holder.Request(IEcho::TRANSACTION_Echo);
    frame.header.parcel_size = kMaxParcelSize;
    ASSERT_TRUE(holder.Send(frame.header));
  }
  ExpectServiceWell();
  std::atomic<bool> served = false;
  std::thread client([&] {
    EXPECT_EQ(Echo(*Client(), std::vector<uint8_t>(2 * kLargeFrame)).size(), 2 * kLargeFrame);
    served = true;
  });
  EXPECT_TRUE(WaitFor([&] {
    for (RawPeer& holder : holders) static_cast<void>(holder.Send('x'));
    return served.load();
  }));
  client.join();
  for (RawPeer& holder : holders) EXPECT_TRUE(holder.Closed());
}

TEST_F(HostileLoadTest, APeerThatDoesNotReadIsNotReadFrom) {
  // The reply to a call is as long as its request; the reactor itself serves a root request.
  const auto echo = [&] {
    return peer_->Request(IEcho::TRANSACTION_Echo, "00400000" + std::string(32768, '7'));
  };
  const auto question = [] {
    return Frame{.header = {.type = FrameType::kRootRequest, .call = 1}};
  };
  for (const std::function<Frame()>& make : {std::function<Frame()>(echo), {question}}) {
    Reconnect();
    const Frame frame = make();
    const size_t sent = Flood(frame);
    EXPECT_GT(sent, 0u);
    ExpectServiceWell();
    // Once it reads, every whole frame has its reply.
    for (size_t i = 0; i < sent; ++i) {
      const auto reply = peer_->ReceiveFrame();
      ASSERT_TRUE(reply) << i << " of " << sent;
      ASSERT_GE(reply->parcel.size(), frame.parcel.empty() ? 1u : 4u + 4u + 16384u);
    }
  }
}

TEST_F(HostileLoadTest, CallsToAPeerThatDoesNotReadEndWithIt) {
  GreetAndGiveObject();
  const ndk::SpAIBinder held = service_->held()->asBinder();
  binder_status_t status = STATUS_OK;
  size_t sent = 0;
  for (; status == STATUS_OK && sent < 4 * kMaxUnsentBytes; sent += 1'000'000) {
    status = SendNote(held, 1'000'000);
  }
  EXPECT_EQ(status, STATUS_DEAD_OBJECT);
  EXPECT_GT(sent, kMaxUnsentBytes);
  EXPECT_LT(sent, 2 * kMaxUnsentBytes);
  EXPECT_TRUE(WaitFor([&] { return !AIBinder_isAlive(held.get()); }));
  ExpectServiceWell();
}

TEST_F(HostileLoadTest, WhenAllLeaveTooMuchUnreadTheLargestIsCutOff) {
  std::vector<RawPeer> peers;
  std::vector<ndk::SpAIBinder> held;
  constexpr size_t kEach = kMaxUnsentBytes / 1'000'000;
  for (size_t all = 0; all <= kMaxBytesOfAll + kPauseUnsentBytes * 8; all += 1'000'000) {
    if (all % (kEach * 1'000'000) == 0) {
      peer_.emplace(Path());
      GreetAndGiveObject();
      peers.push_back(std::move(*peer_));
      held.push_back(service_->held()->asBinder());
    }
    // The first one gets a little more than the others.
    const size_t size = all == 0 ? 1'040'000 : 1'000'000;
    ASSERT_EQ(SendNote(held.back(), size), STATUS_OK) << all;
  }
  EXPECT_TRUE(WaitFor([&] { return !AIBinder_isAlive(held.front().get()); }));
  for (size_t i = 1; i < held.size(); ++i) EXPECT_TRUE(AIBinder_isAlive(held[i].get())) << i;
  peer_.emplace(Path());
  ExpectServiceWell();
}

/// As a client's threads do: one asks for the service while the others' replies are on their way.
TEST_F(HostileLoadTest, APeerThatDoesNotReadMayAskForTheServiceAFewTimes) {
  GreetAndGiveObject();
  const std::shared_ptr<IEcho> held = service_->held();
  ASSERT_EQ(SendNote(held->asBinder(), 1'000'000), STATUS_OK);
  std::thread call([&] {
    std::vector<uint8_t> none;
    EXPECT_FALSE(held->Echo({1}, &none).isOk());
  });
  const FrameHeader question{.type = FrameType::kRootRequest, .call = 1};
  for (int i = 0; i < 3; ++i) ASSERT_TRUE(peer_->Send(question));
  for (int replies = 0; replies < 3;) {
    const auto frame = peer_->ReceiveFrame();
    ASSERT_TRUE(frame);
    replies += frame->header.type == FrameType::kReply ? 1 : 0;
  }
  ASSERT_EQ(SendNote(held->asBinder(), 1'000'000), STATUS_OK);
  for (int i = 0; i <= kMaxUnreadQuestions; ++i) static_cast<void>(peer_->Send(question));
  EXPECT_TRUE(peer_->Closed());
  call.join();
}

TEST_F(HostileLoadTest, AClientWaitsWhileTheServiceIsOutOfDescriptors) {
  LogInfo("the first line needs descriptors: of the log, and of sanitizers");
  for (int i = 0; i < 2; ++i) ExpectServiceWell();  // so does whatever a client runs first
  peer_->Greet();
  rlimit limit{};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
  const rlimit few{.rlim_cur = 100, .rlim_max = limit.rlim_max};
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &few), 0);
  std::vector<UniqueFd> all;
  for (UniqueFd fd(dup(0)); fd.valid(); fd = UniqueFd(dup(0))) all.push_back(std::move(fd));
  all.pop_back();
  RawPeer late(Path());  // takes the last descriptor, none is left for the service
  all.clear();
  late.Greet();
  EXPECT_EQ(late.descriptor(), IEcho::descriptor);
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
  ExpectServiceWell();
}

/// Requests pile up to the limit of one connection, while the service's threads wait for replies
/// that come after them on the same connection.
TEST_F(HostileLoadTest, RepliesAreFoundBehindWaitingRequests) {
  constexpr uint64_t kCalls = 3 * kPauseRequests;
  GreetAndGiveObject();
  service_->asks_held = true;
  Frame echo = peer_->Request(IEcho::TRANSACTION_Echo, "01000000 05000000");
  for (echo.header.call = 1; echo.header.call <= kCalls; ++echo.header.call) {
    ASSERT_TRUE(peer_->SendFrame(echo));
  }
  for (uint64_t replies = 0; replies < kCalls;) {
    const auto frame = peer_->ReceiveFrame();
    ASSERT_TRUE(frame) << replies;
    if (frame->header.type == FrameType::kReply) {
      EXPECT_EQ(Hex(frame->parcel), Normal("00000000 01000000 05000000"));
      ++replies;
    } else if (frame->header.type == FrameType::kRequest) {
      Frame answer{.header = {.type = FrameType::kReply, .call = frame->header.call}};
      answer.parcel = Bytes("00000000 00000000");
      ASSERT_TRUE(peer_->SendFrame(answer));
    }
  }
}

/// Otherwise one that connects, calls and leaves fills the memory while all threads are busy.
TEST_F(HostileLoadTest, ADeadPeerKeepsItsPlaceUntilItsCallsAreDropped) {
  peer_->Greet();
  service_->gate.Close();
  const Frame echo = peer_->Request(IEcho::TRANSACTION_Echo, "01000000 05000000");
  for (int i = 0; i < 2; ++i) ASSERT_TRUE(peer_->SendFrame(echo));
  ASSERT_TRUE(WaitFor([&] { return service_->gate.waiting() == 2; }));
  int gone = 0;
  for (; gone < 2 * kMaxConnectionsOfProcess; ++gone) {
    RawPeer next(Path());
    next.Greet();
    if (next.greeting().result != AdmitResult::kAdmitted) break;
    ASSERT_TRUE(next.SendFrame(echo));
  }
  EXPECT_EQ(gone, kMaxConnectionsOfProcess - 1);
  service_->gate.Open();
  EXPECT_TRUE(WaitFor([&] { return ConnectToService(Path()).error.empty(); }));
}

/// Hundreds of small frames at once are taken in several rounds; every one gets its reply.
TEST_F(HostileLoadTest, ManyFramesAtOnceAreTakenInParts) {
  constexpr size_t kQuestions = 20 * kMaxFramesAtOnce + 1;
  peer_->Greet();
  std::vector<FrameHeader> questions(kQuestions, {.type = FrameType::kRootRequest, .call = 1});
  const size_t size = questions.size() * sizeof questions[0];
  ASSERT_EQ(send(peer_->fd(), questions.data(), size, 0), static_cast<ssize_t>(size));
  for (size_t i = 0; i < kQuestions; ++i) ASSERT_TRUE(peer_->ReceiveFrame()) << i;
}

}  // namespace
}  // namespace kvox::binder
