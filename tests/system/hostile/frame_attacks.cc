// Garbage bytes, and frames with invalid contents.

#include "platform/linux/limits.h"
#include "tests/system/hostile/attacker.h"

namespace kvox {
namespace {

// No commands that use the co-processor or switch something on: these wait for other reasons.
constexpr transaction_code_t kHarmless[] = {
    IKvox::TRANSACTION_Ping,
    IKvox::TRANSACTION_ListProcessors,
    IKvox::TRANSACTION_NewProcessor,
    IKvox::TRANSACTION_DeleteProcessor,
    IKvox::TRANSACTION_Enable,
    IKvox::TRANSACTION_IsEnabled,
    IKvox::TRANSACTION_ProcessorInfo,
    IKvox::TRANSACTION_ProcessorIsEnabled,
    IKvox::TRANSACTION_ListTapOutBuffers,
    IKvox::TRANSACTION_Debug,
    IKvox::TRANSACTION_SetParameter,
    IKvox::TRANSACTION_GetParameter,
    IKvox::TRANSACTION_SetParameterBulk,
    IKvox::TRANSACTION_GetParameterBulk,
    IKvox::TRANSACTION_SendAudio,
    IKvox::TRANSACTION_RegisterReceiveAudioCallback,
    IKvox::TRANSACTION_ProcessorGetStats,
    0x00ffffff,
    0x5f4e5446,
};

Frame HarmlessCall(Attacker& attacker, const RawPeer& peer) {
  return peer.Request(kHarmless[attacker.Below(std::size(kHarmless))]);
}

/// A request with every kind of argument: text, numbers, lists and a reference.
Frame RichRequest(const RawPeer& peer) {
  Frame frame = peer.Request(IKvox::TRANSACTION_RegisterReceiveAudioCallback, "41424344");
  PutObject(&frame, 7, IKvox::IReceiveAudioCallback::descriptor);
  return frame;
}

}  // namespace

/// Every prefix of a conversation, then the end.
void CutFrames(Attacker& attacker) {
  std::vector<uint8_t> wire = Wire(RichRequest(attacker.Peer()));
  for (size_t size = 0; attacker.more(); size = (size + 1) % wire.size()) {
    SendBytes(attacker.Peer(), wire.data(), size);
  }
}

void OversizedFrames(Attacker& attacker) {
  constexpr uint32_t kSizes[] = {binder::kMaxParcelSize + 4, 0x7ffffffc, 0x80000000, 0xfffffffc};
  while (attacker.more()) {
    const RawPeer peer = attacker.Peer();
    Frame frame = peer.Request(IKvox::TRANSACTION_Debug);
    const uint32_t size = kSizes[attacker.Below(std::size(kSizes))];
    (attacker.Below(2) == 0 ? frame.header.parcel_size : frame.header.object_list_size) = size;
    SendBytes(peer, &frame.header, sizeof frame.header);
    SendBytes(peer, frame.parcel.data(), frame.parcel.size());
  }
}

void RandomBytes(Attacker& attacker) {
  while (attacker.more()) {
    const RawPeer peer = attacker.Peer();
    const auto bytes = attacker.RandomBytes(1 + attacker.Below(4096));
    SendBytes(peer, bytes.data(), bytes.size());
  }
}

/// Whole frames to real methods, with anything as arguments. The connection stays.
void RandomCalls(Attacker& attacker) {
  RawPeer peer = attacker.Peer();
  while (attacker.more()) {
    Frame frame = HarmlessCall(attacker, peer);
    for (uint32_t words = attacker.Below(32); words > 0; --words) {
      // Small numbers are counts, sizes, tags and the like.
      const uint32_t word =
          attacker.Below(3) == 0 ? attacker.Below(UINT32_MAX) : attacker.Below(64);
      Put(&frame, static_cast<int32_t>(word));
    }
    if (!peer.SendFrame(frame) || !peer.ReceiveFrame()) peer = attacker.Peer();
  }
}

/// A valid request with a few bits flipped.
void MutatedCalls(Attacker& attacker) {
  RawPeer peer = attacker.Peer();
  const std::vector<uint8_t> wire = Wire(RichRequest(peer));
  while (attacker.more()) {
    auto bytes = wire;
    for (uint32_t flips = 1 + attacker.Below(4); flips > 0; --flips) {
      bytes[attacker.Below(static_cast<uint32_t>(bytes.size()))] ^=
          static_cast<uint8_t>(1u << attacker.Below(8));
    }
    if (!SendBytes(peer, bytes.data(), bytes.size()) || !peer.ReceiveFrame()) {
      peer = attacker.Peer();
    }
  }
}

/// Parcelables with wrong sizes, within lists with wrong sizes.
void NestedSizes(Attacker& attacker) {
  RawPeer peer = attacker.Peer();
  constexpr int32_t kSizes[] = {INT32_MIN, -1, 0, 3, 4, 5, 8, 12, 1 << 20, INT32_MAX};
  while (attacker.more()) {
    Frame frame = peer.Request(IKvox::TRANSACTION_GetParameterBulk, "41424344");
    const uint32_t pairs = attacker.Below(2) == 0 ? 64 : 40'000;
    Put(&frame, static_cast<int32_t>(pairs));
    const int32_t size = kSizes[attacker.Below(std::size(kSizes))];
    for (uint32_t i = 0; i < pairs; ++i) {
      for (const int32_t word : {1, size, 3, 0}) Put(&frame, word);
    }
    if (!SendBytes(peer, Wire(frame).data(), Wire(frame).size()) || !peer.ReceiveFrame()) {
      peer = attacker.Peer();
    }
  }
}

Frame LargestList(const RawPeer& peer, transaction_code_t code, std::string_view element) {
  Frame frame = peer.Request(code);
  const auto bytes = binder::Bytes(element);
  const size_t count = (binder::kMaxParcelSize - frame.parcel.size() - 4) / bytes.size();
  Put(&frame, static_cast<int32_t>(count));
  for (size_t i = 0; i < count; ++i) {
    frame.parcel.insert(frame.parcel.end(), bytes.begin(), bytes.end());
  }
  return frame;
}

}  // namespace kvox
