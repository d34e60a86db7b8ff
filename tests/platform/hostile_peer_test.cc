// Protocol violations harm only the peer that commits them.
#include <functional>

#include "tests/platform/hostile_peer_fixture.h"

namespace kvox::binder {
namespace {

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

}  // namespace
}  // namespace kvox::binder
