// A service and a peer that does what it should not.
#pragma once

#include <android/binder_parcel_utils.h>
#include <fcntl.h>
#include <poll.h>

#include <cstring>
#include <optional>
#include <string_view>
#include <vector>

#include "platform/linux/limits.h"
#include "tests/platform/binder_fixture.h"
#include "tests/platform/raw_peer.h"

namespace kvox::binder {

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
  /// A one-way call of the object with so many bytes.
  static binder_status_t SendNote(const ndk::SpAIBinder& object, size_t size) {
    AParcel* in = nullptr;
    AParcel* out = nullptr;
    EXPECT_EQ(AIBinder_prepareTransaction(object.get(), &in), STATUS_OK);
    EXPECT_EQ(ndk::AParcel_writeData(in, std::vector<uint8_t>(size)), STATUS_OK);
    const auto status =
        AIBinder_transact(object.get(), IEcho::TRANSACTION_Note, &in, &out, FLAG_ONEWAY);
    AParcel_delete(out);
    return status;
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

}  // namespace kvox::binder
