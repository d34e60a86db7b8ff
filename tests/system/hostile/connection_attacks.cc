// Connections that come, go, stay, and end at the wrong moment.
#include <poll.h>

#include <array>
#include <deque>

#include "platform/linux/limits.h"
#include "tests/platform/lingering_socket.h"
#include "tests/system/hostile/attacker.h"

namespace kvox {

/// Thousands, one after the other: some without a word, some with a wrong one.
void ConnectAndGo(Attacker& attacker) {
  while (attacker.more()) {
    RawPeer peer(attacker.path());
    if (attacker.Below(2) == 0) peer.Send(binder::ClientGreeting{.version = 99});
  }
}

/// As many as this process gets, and continuous further attempts.
void HoldConnections(Attacker& attacker) {
  std::deque<RawPeer> held;
  for (int i = 0; i < binder::kMaxConnectionsOfProcess; ++i) held.push_back(attacker.Peer());
  while (attacker.more()) static_cast<void>(attacker.Peer());
}

/// Half a greeting, half a header and half a frame, and then silence.
void SayNothing(Attacker& attacker) {
  std::deque<RawPeer> held;
  for (int i = 0; i < 2; ++i) {
    held.emplace_back(attacker.path());
    SendBytes(held.back(), "bk", 2);
    held.push_back(attacker.Peer());
    SendBytes(held.back(), "\1\0\0\0\1\0", 6);
    held.push_back(attacker.Peer());
    Frame frame = held.back().Request(IKvox::TRANSACTION_Debug);
    frame.parcel.resize(binder::kMaxParcelSize);
    const auto wire = Wire(frame);
    SendBytes(held.back(), wire.data(), wire.size() - 4);
  }
  while (attacker.more()) poll(nullptr, 0, 10);
}

namespace {

using Step = void (*)(RawPeer& peer);

// The last step before the connection ends. Replies are large, so that most of one is still on its
// way.
constexpr std::array<Step, 6> kLastSteps = {
    [](RawPeer&) {},
    [](RawPeer& peer) { peer.SendFrame(peer.Request(IKvox::TRANSACTION_ListProcessors)); },
    [](RawPeer& peer) {
      peer.SendFrame(LargestList(peer, IKvox::TRANSACTION_Debug, "00000000 00000000"));
      char byte;
      static_cast<void>(recv(peer.fd(), &byte, 1, 0));
    },
    [](RawPeer& peer) { shutdown(peer.fd(), SHUT_RD), peer.SendFrame(peer.Request(1)); },
    [](RawPeer& peer) { peer.SendFrame(peer.Request(1)), shutdown(peer.fd(), SHUT_WR); },
    [](RawPeer& peer) {
      Frame frame = peer.Request(IKvox::TRANSACTION_RegisterReceiveAudioCallback, "41424344");
      PutObject(&frame, 1, IKvox::IReceiveAudioCallback::descriptor);
      peer.SendFrame(frame);
    },
};

}  // namespace

void DieInEveryState(Attacker& attacker) {
  for (size_t i = 0; attacker.more(); i = (i + 1) % kLastSteps.size()) {
    RawPeer peer = attacker.Peer();
    if (peer.greeting().result == binder::AdmitResult::kAdmitted) kLastSteps[i](peer);
  }
}

/// Sockets whose closing takes seconds, urgent or not, at every point of a conversation; and
/// urgent bytes that stay.
void PassDescriptors(Attacker& attacker) {
  const RawPeer urgent = attacker.Peer();
  send(urgent.fd(), "\1", 1, MSG_OOB | MSG_NOSIGNAL);
  std::deque<binder::LingeringSocket> sockets;
  while (attacker.more()) {
    if (sockets.size() == 16) sockets.pop_front();
    const RawPeer peer = attacker.Below(2) == 0 ? RawPeer(attacker.path()) : attacker.Peer();
    // Where the system does not pass descriptors, at least the bytes come.
    const int flags = attacker.Below(2) == 0 ? MSG_OOB : 0;
    const bool passed = sockets.emplace_back().SendThrough(peer.fd(), flags);
    if (!passed) send(peer.fd(), "\1", 1, flags | MSG_NOSIGNAL);
    SendBytes(peer, "abc", 3);
  }
}

}  // namespace kvox
