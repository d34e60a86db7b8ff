// The means of an attack: the daemon's socket, the time and random choices.
#pragma once

#include <sys/socket.h>
#include <sys/time.h>

#include <aidl/kvox/IKvox.h>

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <deque>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "tests/platform/raw_peer.h"

namespace kvox {

using aidl::kvox::IKvox;
using binder::Frame;
using binder::Put;
using binder::PutObject;
using binder::RawPeer;
using binder::Wire;

class Attacker {
 public:
  Attacker(std::string path, uint32_t seed, std::chrono::milliseconds time)
      : path_(std::move(path)), random_(seed), end_(std::chrono::steady_clock::now() + time) {}

  const std::string& path() const { return path_; }
  /// Counts the rounds and returns whether another one is due. The first call tells the test that
  /// the attack has begun.
  bool more() {
    if (++rounds_ == 0) {
      std::puts("attacking");
      std::fflush(stdout);
    }
    return std::chrono::steady_clock::now() < end_;
  }
  int64_t rounds() const { return rounds_; }

  /// From 0 to `count` - 1.
  uint32_t Below(uint32_t count) { return static_cast<uint32_t>(random_() % count); }
  std::vector<uint8_t> RandomBytes(size_t size) {
    std::vector<uint8_t> bytes(size);
    for (uint8_t& byte : bytes) byte = static_cast<uint8_t>(random_());
    return bytes;
  }

  /// A peer that has greeted. Its sends and receives take a fifth of a second at most.
  RawPeer Peer() const {
    RawPeer peer(path_);
    peer.Greet();
    const timeval patience{.tv_sec = 0, .tv_usec = 200'000};
    setsockopt(peer.fd(), SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof patience);
    setsockopt(peer.fd(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    return peer;
  }

 private:
  const std::string path_;
  std::mt19937 random_;
  const std::chrono::steady_clock::time_point end_;
  int64_t rounds_ = -1;
};

/// False when the daemon has closed the connection or does not read.
inline bool SendBytes(const RawPeer& peer, const void* bytes, size_t size) {
  const auto* at = static_cast<const uint8_t*>(bytes);
  while (size > 0) {
    const ssize_t sent = send(peer.fd(), at, size, MSG_NOSIGNAL);
    if (sent <= 0) return false;
    at += sent;
    size -= static_cast<size_t>(sent);
  }
  return true;
}

/// A request with as many copies of `element` as fit into a frame.
Frame LargestList(const RawPeer& peer, transaction_code_t code, std::string_view element);

/// Sends the same bytes on all of these connections, without a pause. Reads what comes back all the
/// time, or never.
void Flood(Attacker& attacker, std::deque<RawPeer>& peers, const std::vector<uint8_t>& wire,
           bool reads);

// The attacks, by file.

void CutFrames(Attacker& attacker);
void OversizedFrames(Attacker& attacker);
void RandomBytes(Attacker& attacker);
void RandomCalls(Attacker& attacker);
void MutatedCalls(Attacker& attacker);
void NestedSizes(Attacker& attacker);

void ConnectAndGo(Attacker& attacker);
void HoldConnections(Attacker& attacker);
void SayNothing(Attacker& attacker);
void DieInEveryState(Attacker& attacker);
void PassDescriptors(Attacker& attacker);

void FloodQuestions(Attacker& attacker);
void FloodReplies(Attacker& attacker);
void NeverRead(Attacker& attacker);
void HeavyCalls(Attacker& attacker);
void SlowCalls(Attacker& attacker);
void HugeCounts(Attacker& attacker);

void ForeignObjects(Attacker& attacker);
void ManyObjects(Attacker& attacker);
void DeadCallbacks(Attacker& attacker);
void HangingCallbacks(Attacker& attacker);
void FloodBehindCallbacks(Attacker& attacker);

}  // namespace kvox
