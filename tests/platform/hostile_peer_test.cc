// Protocol violations harm only the peer that commits them.
#include <android/binder_parcel_utils.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/resource.h>

#include <functional>

#include "kvox/common/log.h"
#include "platform/linux/limits.h"
#include "tests/platform/binder_fixture.h"
#include "tests/platform/raw_peer.h"

namespace kvox::binder {
namespace {

class HostilePeerTest : public BinderTest {
 protected:
  void SetUp() override {
    BinderTest::SetUp();
    Serve(2);
    peer_.emplace(Path());
  }
  /// Another peer instead of the last one, once the service has room for it.
  void Reconnect() {
    const auto is_admitted = [&] {
      peer_.emplace(Path());
      peer_->Greet();
      return peer_->greeting().result == AdmitResult::kAdmitted;
    };
    ASSERT_TRUE(WaitFor(is_admitted));
  }
  void ExpectServiceWell() {
    const auto client = Client();
    EXPECT_EQ(Echo(*client, {1, 2, 3}), (std::vector<uint8_t>{1, 2, 3}));
  }
  /// An entry of an object list: the position of the reference after the token, the descriptor.
  static std::vector<uint8_t> Entry(const Frame& frame, size_t back, std::string_view descriptor) {
    const ObjectEntry entry{static_cast<uint32_t>(frame.parcel.size() - back),
                            static_cast<uint32_t>(descriptor.size())};
    std::vector<uint8_t> bytes(sizeof entry + PaddedSize(entry.descriptor_size));
    std::memcpy(bytes.data(), &entry, sizeof entry);
    std::memcpy(bytes.data() + sizeof entry, descriptor.data(), descriptor.size());
    return bytes;
  }
  Frame SwapRequest() const {
    Frame frame = peer_->Request(IEcho::TRANSACTION_Swap);
    PutObject(&frame, 7, IEcho::descriptor);
    return frame;
  }
  void GreetAndGiveObject() {
    peer_->Greet();
    ASSERT_TRUE(peer_->SendFrame(SwapRequest()));
    ASSERT_TRUE(peer_->ReceiveFrame());
  }
  /// Sends the frame again and again, without reading, until the service takes no more. Returns how
  /// many whole frames were sent.
  size_t Flood(const Frame& frame) {
    const auto wire = Wire(frame);
    EXPECT_EQ(fcntl(peer_->fd(), F_SETFL, O_NONBLOCK), 0);
    constexpr size_t kEnough = 64 * kPauseRequestBytes;
    size_t bytes = 0;
    const auto fill = [&] {
      while (bytes < kEnough) {
        const ssize_t size = send(peer_->fd(), wire.data() + bytes % wire.size(),
                                  wire.size() - bytes % wire.size(), MSG_NOSIGNAL);
        if (size < 0) return;
        bytes += static_cast<size_t>(size);
      }
    };
    pollfd writable{.fd = peer_->fd(), .events = POLLOUT, .revents = 0};
    do fill();
    while (poll(&writable, 1, 50) == 1 && writable.revents == POLLOUT && bytes < kEnough);
    EXPECT_LT(bytes, 8 * kPauseRequestBytes);
    EXPECT_EQ(fcntl(peer_->fd(), F_SETFL, 0), 0);
    return bytes / wire.size();
  }

  std::optional<RawPeer> peer_;
};

TEST_F(HostilePeerTest, AGreetingOfSomethingElseEndsTheConnection) {
  for (const ClientGreeting& greeting : {ClientGreeting{.magic = 0x47455420}, {.version = 99}}) {
    RawPeer peer(Path());
    peer.Send(greeting);
    EXPECT_TRUE(peer.Closed());
  }
  ExpectServiceWell();
}

TEST_F(HostilePeerTest, MalformedFramesEndTheConnectionAndNothingElse) {
  using Change = std::function<void(Frame&)>;
  const std::pair<const char*, Change> rows[] = {
      {"type", [](Frame& f) { f.header.type = FrameType{9}; }},
      {"flags", [](Frame& f) { f.header.flags = 0x10; }},
      {"odd parcel", [](Frame& f) { f.parcel.push_back(0); }},
      {"large parcel", [](Frame& f) { f.parcel.resize(kMaxParcelSize + 4); }},
      {"object never given", [](Frame& f) { f.header.address += 2; }},
      {"object of the sender's", [](Frame& f) { f.header.address &= ~kReceiversObject; }},
      {"reply to no call",
       [](Frame& f) {
         f.header.type = FrameType::kReply;
         f.header.code = 0;
       }},
      {"failed reply with a parcel",
       [](Frame& f) {
         f.header.type = FrameType::kReply;
         f.header.code = 5;
       }},
      {"release with a parcel", [](Frame& f) { f.header.type = FrameType::kRelease; }},
      {"release of too many",
       [](Frame& f) {
         f = {.header = {.type = FrameType::kRelease, .call = 2, .address = f.header.address}};
       }},
      {"release of none",
       [](Frame& f) {
         f = {.header = {.type = FrameType::kRelease, .address = f.header.address}};
       }},
      {"list without objects", [](Frame& f) { f.header.object_count = 0; }},
      {"objects without list", [](Frame& f) { f.object_list.clear(); }},
      {"more objects than entries", [](Frame& f) { f.header.object_count = 2; }},
      {"same place twice",
       [](Frame& f) {
         const auto entry = f.object_list;
         f.object_list.insert(f.object_list.end(), entry.begin(), entry.end());
         f.header.object_count = 2;
       }},
      {"place behind the end", [](Frame& f) { f.object_list = Entry(f, 12, IEcho::descriptor); }},
      {"place far away", [](Frame& f) { f.object_list[3] = 0xff; }},
      {"odd place", [](Frame& f) { f.object_list[0] += 2; }},
      {"no reference there", [](Frame& f) { f.object_list = Entry(f, 20, IEcho::descriptor); }},
      {"long descriptor",
       [](Frame& f) { f.object_list = Entry(f, 16, std::string(kMaxDescriptorSize + 4, 'x')); }},
      {"descriptor behind the end", [](Frame& f) { f.object_list[4] += 8; }},
      {"reference never given", [](Frame& f) { f.parcel[f.parcel.size() - 12] = 0x41; }},
  };
  for (const auto& [name, change] : rows) {
    Reconnect();
    Frame frame = SwapRequest();
    change(frame);
    peer_->SendFrame(frame);
    EXPECT_TRUE(peer_->Closed()) << name;
  }
  ExpectServiceWell();
  Reconnect();
  ASSERT_TRUE(peer_->SendFrame(SwapRequest()));
  EXPECT_EQ(peer_->ReceiveFrame()->header.code, 0u) << "unchanged it is taken";
}

TEST_F(HostilePeerTest, HalfAFrameBlocksNobody) {
  peer_->Greet();
  Frame frame = peer_->Request(IEcho::TRANSACTION_Echo, "00000000");
  frame.header.parcel_size = 4096;
  ASSERT_TRUE(peer_->Send(frame.header));
  RawPeer silent(Path());
  ExpectServiceWell();
}

TEST_F(HostilePeerTest, WrongTokensAndCodesAreAnsweredAsFailures) {
  peer_->Greet();
  Frame frame = peer_->Request(IEcho::TRANSACTION_Note);
  frame.parcel[4] ^= 1;
  ASSERT_TRUE(peer_->SendFrame(frame));
  EXPECT_EQ(static_cast<int32_t>(peer_->ReceiveFrame()->header.code), STATUS_BAD_TYPE);
  ASSERT_TRUE(peer_->SendFrame(peer_->Request(0x7fffffff)));
  EXPECT_EQ(static_cast<int32_t>(peer_->ReceiveFrame()->header.code), STATUS_UNKNOWN_TRANSACTION);
  ASSERT_TRUE(peer_->SendFrame(peer_->Request(0x5f4e5446)));
  const auto reply = peer_->ReceiveFrame();
  EXPECT_EQ(Bytes(Hex(reply->parcel)), peer_->Request(0).parcel) << "the descriptor, nothing else";
}

TEST_F(HostilePeerTest, APeerThatDoesNotReadIsNotReadFrom) {
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

TEST_F(HostilePeerTest, CallsToAPeerThatDoesNotReadEndWithIt) {
  GreetAndGiveObject();
  const ndk::SpAIBinder held = service_->held()->asBinder();
  binder_status_t status = STATUS_OK;
  size_t sent = 0;
  while (status == STATUS_OK && sent < 4 * kMaxUnsentBytes) {
    AParcel* in = nullptr;
    AParcel* out = nullptr;
    ASSERT_EQ(AIBinder_prepareTransaction(held.get(), &in), STATUS_OK);
    ASSERT_EQ(ndk::AParcel_writeData(in, std::vector<uint8_t>(1'000'000)), STATUS_OK);
    status = AIBinder_transact(held.get(), IEcho::TRANSACTION_Note, &in, &out, FLAG_ONEWAY);
    AParcel_delete(out);
    sent += 1'000'000;
  }
  EXPECT_EQ(status, STATUS_DEAD_OBJECT);
  EXPECT_GT(sent, kMaxUnsentBytes);
  EXPECT_LT(sent, 2 * kMaxUnsentBytes);
  EXPECT_TRUE(WaitFor([&] { return !AIBinder_isAlive(held.get()); }));
  ExpectServiceWell();
}

TEST_F(HostilePeerTest, AClientWaitsWhileTheServiceIsOutOfDescriptors) {
  LogInfo("the first line needs descriptors: of the log, and of sanitizers");
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
TEST_F(HostilePeerTest, RepliesAreFoundBehindWaitingRequests) {
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

/// Otherwise replies to one call, each with an object to release, could keep the pool busy.
TEST_F(HostilePeerTest, ASecondReplyToACallEndsTheConnection) {
  GreetAndGiveObject();
  service_->asks_held = true;
  ASSERT_TRUE(peer_->SendFrame(peer_->Request(IEcho::TRANSACTION_Echo, "01000000 05000000")));
  const auto question = peer_->ReceiveFrame();
  ASSERT_TRUE(question);
  Frame answer{.header = {.type = FrameType::kReply, .call = question->header.call}};
  answer.parcel = Bytes("00000000 00000000");
  ASSERT_TRUE(peer_->SendFrame(answer));
  ASSERT_TRUE(peer_->ReceiveFrame());
  ASSERT_TRUE(peer_->SendFrame(answer));
  EXPECT_TRUE(peer_->Closed());
  service_->asks_held = false;
  ExpectServiceWell();
}

/// Otherwise one that connects, calls and leaves fills the memory while all threads are busy.
TEST_F(HostilePeerTest, ADeadPeerKeepsItsPlaceUntilItsCallsAreDropped) {
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
TEST_F(HostilePeerTest, ManyFramesAtOnceAreTakenInParts) {
  constexpr size_t kQuestions = 20 * kMaxFramesAtOnce + 1;
  peer_->Greet();
  std::vector<FrameHeader> questions(kQuestions, {.type = FrameType::kRootRequest, .call = 1});
  const size_t size = questions.size() * sizeof questions[0];
  ASSERT_EQ(send(peer_->fd(), questions.data(), size, 0), static_cast<ssize_t>(size));
  for (size_t i = 0; i < kQuestions; ++i) ASSERT_TRUE(peer_->ReceiveFrame()) << i;
}

}  // namespace
}  // namespace kvox::binder
