// A peer that sends and receives frames made by hand, valid or not.
#pragma once

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cerrno>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "kvox/common/unique_fd.h"
#include "platform/linux/runtime_directory.h"
#include "tests/platform/parcel_bytes.h"
#include "tests/platform/raw_frame.h"

namespace kvox::binder {

class RawPeer {
 public:
  /// Connects without a greeting.
  explicit RawPeer(const std::string& path) : fd_(socket(AF_UNIX, SOCK_STREAM, 0)) {
    sockaddr_un address;
    std::string error;
    EXPECT_TRUE(MakeAddress(path, &address, &error)) << error;
    EXPECT_EQ(connect(fd_.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    LimitWaits();
  }
  /// On a connected socket.
  explicit RawPeer(UniqueFd socket) : fd_(std::move(socket)) { LimitWaits(); }

  /// Exchanges greetings; greeting() then has the address of the service's object.
  void Greet() {
    Send(ClientGreeting());
    ASSERT_TRUE(Receive(&greeting_, sizeof greeting_));
    std::vector<char> descriptor(PaddedSize(greeting_.descriptor_size));
    ASSERT_TRUE(Receive(descriptor.data(), descriptor.size()));
    descriptor_.assign(descriptor.data(), greeting_.descriptor_size);
  }
  const ServiceGreeting& greeting() const { return greeting_; }
  const std::string& descriptor() const { return descriptor_; }

  /// A request to the service's object. `hex` follows the token.
  Frame Request(transaction_code_t code, std::string_view hex = "") const {
    Frame frame = RequestTo(greeting_.address | kReceiversObject, code, descriptor_.c_str());
    frame.header.call = 1;
    for (const uint8_t byte : Bytes(hex)) frame.parcel.push_back(byte);
    return frame;
  }

  template <typename T>
  bool Send(const T& value) {
    return SendBytes(&value, sizeof value);
  }
  bool SendFrame(const Frame& frame) {
    const auto wire = Wire(frame);
    return SendBytes(wire.data(), wire.size());
  }
  std::optional<Frame> ReceiveFrame() {
    Frame frame;
    if (!Receive(&frame.header, sizeof frame.header)) return std::nullopt;
    frame.parcel.resize(frame.header.parcel_size);
    frame.object_list.resize(frame.header.object_list_size);
    if (!Receive(frame.parcel.data(), frame.parcel.size()) ||
        !Receive(frame.object_list.data(), frame.object_list.size())) {
      return std::nullopt;
    }
    return frame;
  }

  /// Waits for the other end to close; drops what it sends before.
  bool Closed() {
    char byte;
    while (Receive(&byte, 1)) {
    }
    return errno != EAGAIN;
  }
  int fd() const { return fd_.get(); }

 private:
  void LimitWaits() const {
    const timeval patience{.tv_sec = 30, .tv_usec = 0};
    EXPECT_EQ(setsockopt(fd_.get(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience), 0);
  }
  bool SendBytes(const void* bytes, size_t size) {
    return send(fd_.get(), bytes, size, MSG_NOSIGNAL) == static_cast<ssize_t>(size);
  }
  bool Receive(void* bytes, size_t size) {
    errno = 0;
    return size == 0 || recv(fd_.get(), bytes, size, MSG_WAITALL) == static_cast<ssize_t>(size);
  }

  UniqueFd fd_;
  ServiceGreeting greeting_;
  std::string descriptor_;
};

}  // namespace kvox::binder
