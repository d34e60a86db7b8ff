// References to objects that do not exist, are not the sender's, are too many, dead or hang.
#include <poll.h>

#include <deque>

#include "platform/linux/limits.h"
#include "tests/system/hostile/attacker.h"

namespace kvox {
namespace {

constexpr char kPassthru[] = "70617373";  // the bytes of the number, not of the text

/// Registers object `id` of the peer's as the callback of a processor.
Frame Register(const RawPeer& peer, std::string_view processor, uint64_t id,
               std::string_view descriptor) {
  Frame frame = peer.Request(IKvox::TRANSACTION_RegisterReceiveAudioCallback, processor);
  PutObject(&frame, id, descriptor);
  return frame;
}

}  // namespace

/// Calls of objects that others hold, and references to them.
void ForeignObjects(Attacker& attacker) {
  while (attacker.more()) {
    RawPeer peer = attacker.Peer();
    Frame frame = Register(peer, kPassthru, 1, IKvox::IReceiveAudioCallback::descriptor);
    const uint64_t address = (uint64_t{attacker.Below(64)} << 1) | attacker.Below(2);
    if (attacker.Below(2) == 0) {
      frame.header.address = address;
    } else {
      std::memcpy(frame.parcel.data() + frame.parcel.size() - 12, &address, sizeof address);
    }
    if (peer.SendFrame(frame)) peer.ReceiveFrame();
  }
}

/// As many new objects in every call as one peer may have, all released after it.
void ManyObjects(Attacker& attacker) {
  RawPeer peer = attacker.Peer();
  Frame frame = peer.Request(IKvox::TRANSACTION_Ping);
  for (uint64_t id = 1; id <= binder::kMaxObjects; ++id) PutObject(&frame, id, "x");
  const auto wire = Wire(frame);
  while (attacker.more()) {
    if (!SendBytes(peer, wire.data(), wire.size())) peer = attacker.Peer();
    while (const auto frame_back = peer.ReceiveFrame()) {
      if (frame_back->header.type == binder::FrameType::kReply) break;
    }
  }
}

/// Callbacks whose client is gone when they are registered, or of another interface.
void DeadCallbacks(Attacker& attacker) {
  while (attacker.more()) {
    RawPeer peer = attacker.Peer();
    const bool own = attacker.Below(2) == 0;
    peer.SendFrame(Register(peer, "30747261", 1,
                            own ? IKvox::IReceiveAudioCallback::descriptor : "kvox.IKvox"));
    if (attacker.Below(2) == 0) peer.ReceiveFrame();
  }
}

/// Registers one callback of a relay after the other; none ever returns.
void HangingCallbacks(Attacker& attacker) {
  std::deque<RawPeer> peers;
  for (int i = 0; i < binder::kMaxConnectionsOfProcess; ++i) peers.push_back(attacker.Peer());
  for (uint64_t id = 1; attacker.more(); ++id) {
    RawPeer& peer = peers[id % peers.size()];
    peer.SendFrame(Register(peer, "30747261", id, IKvox::IReceiveAudioCallback::descriptor));
    peer.ReceiveFrame();
    poll(nullptr, 0, 20);
  }
}

/// While a callback runs, its connection is read however many requests wait: as large ones as need
/// no room of their own. Nothing that comes back is read.
void FloodBehindCallbacks(Attacker& attacker) {
  std::deque<RawPeer> peers;
  for (uint64_t id = 1; id <= binder::kMaxConnectionsOfProcess; ++id) {
    RawPeer& peer = peers.emplace_back(attacker.Peer());
    peer.SendFrame(Register(peer, "30747261", id, IKvox::IReceiveAudioCallback::descriptor));
    for (int frames = 0; frames < 2; ++frames) peer.ReceiveFrame();  // the reply, the first call
  }
  Frame frame = LargestList(peers.front(), IKvox::TRANSACTION_Debug, "00000000 00000000");
  constexpr int32_t kElements = 240 * 1024 / 8;
  const size_t head = peers.front().Request(IKvox::TRANSACTION_Debug).parcel.size();
  std::memcpy(frame.parcel.data() + head, &kElements, sizeof kElements);
  frame.parcel.resize(head + sizeof kElements + kElements * 8);
  Flood(attacker, peers, Wire(frame), false);
}

}  // namespace kvox
