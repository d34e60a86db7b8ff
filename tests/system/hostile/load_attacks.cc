// Frames that are valid one by one, but too many or too expensive.
#include <poll.h>

#include <deque>
#include <vector>

#include "platform/linux/limits.h"
#include "tests/system/hostile/attacker.h"

namespace kvox {
namespace {

/// On every connection that this process gets.
void Flood(Attacker& attacker, const std::vector<uint8_t>& wire, bool reads) {
  std::deque<RawPeer> peers;
  for (int i = 0; i < binder::kMaxConnectionsOfProcess; ++i) peers.push_back(attacker.Peer());
  Flood(attacker, peers, wire, reads);
}

/// The frame repeated, up to a good size for one system call.
std::vector<uint8_t> Repeated(const Frame& frame) {
  const auto one = Wire(frame);
  std::vector<uint8_t> wire;
  do wire.insert(wire.end(), one.begin(), one.end());
  while (wire.size() < 256 * 1024);
  return wire;
}

}  // namespace

void Flood(Attacker& attacker, std::deque<RawPeer>& peers, const std::vector<uint8_t>& wire,
           bool reads) {
  std::vector<size_t> sent(peers.size(), 0);
  std::vector<char> ignored(1 << 20);
  while (attacker.more()) {
    size_t busy = 0;
    for (size_t i = 0; i < peers.size(); ++i) {
      if (reads) {
        while (recv(peers[i].fd(), ignored.data(), ignored.size(), MSG_DONTWAIT) > 0) ++busy;
      }
      const ssize_t size = send(peers[i].fd(), wire.data() + sent[i], wire.size() - sent[i],
                                MSG_NOSIGNAL | MSG_DONTWAIT);
      if (size > 0) sent[i] = (sent[i] + static_cast<size_t>(size)) % wire.size(), ++busy;
      if (size < 0 && errno != EAGAIN) {
        peers[i] = attacker.Peer();
        sent[i] = 0;
      }
    }
    if (busy == 0) poll(nullptr, 0, 1);
  }
}

/// The one request that the reactor serves itself.
void FloodQuestions(Attacker& attacker) {
  Flood(attacker, Repeated({.header = {.type = binder::FrameType::kRootRequest, .call = 1}}), true);
}

/// Replies to no call, with objects that have to be released.
void FloodReplies(Attacker& attacker) {
  Frame frame{.header = {.type = binder::FrameType::kReply, .call = 1}};
  PutObject(&frame, 1, "x");
  Flood(attacker, Repeated(frame), true);
}

/// Large replies that are never read.
void NeverRead(Attacker& attacker) {
  const RawPeer peer = attacker.Peer();
  Flood(attacker, Wire(LargestList(peer, IKvox::TRANSACTION_Debug, "00000000 00000000")), false);
}

/// The same, read: as much work for the pool as a frame can hold.
void HeavyCalls(Attacker& attacker) {
  const RawPeer peer = attacker.Peer();
  Flood(attacker, Wire(LargestList(peer, IKvox::TRANSACTION_Debug, "00000000 00000000")), true);
}

/// Commands that wait for a co-processor that is not there.
void SlowCalls(Attacker& attacker) {
  const RawPeer peer = attacker.Peer();
  Flood(attacker, Repeated(peer.Request(IKvox::TRANSACTION_TapList, "02000000")), true);
}

/// Small frames that announce much, and large ones that announce more than they hold.
void HugeCounts(Attacker& attacker) {
  const RawPeer peer = attacker.Peer();
  std::vector<uint8_t> wire;
  for (const uint32_t size : {64u, 4096u, binder::kMaxParcelSize}) {
    for (const auto code : {IKvox::TRANSACTION_Debug, IKvox::TRANSACTION_GetParameterBulk}) {
      Frame frame = peer.Request(code);
      if (code != IKvox::TRANSACTION_Debug) Put(&frame, 0);
      const size_t left = size - frame.parcel.size() - 4;
      Put(&frame, static_cast<int32_t>(left));  // as many elements as bytes, none of them complete
      frame.parcel.resize(size, 0xff);
      const auto one = Wire(frame);
      wire.insert(wire.end(), one.begin(), one.end());
    }
  }
  Flood(attacker, wire, true);
}

}  // namespace kvox
