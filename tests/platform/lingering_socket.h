// What a hostile peer passes so that its receiver waits.
#pragma once

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cstring>
#include <vector>

#include "kvox/common/unique_fd.h"

namespace kvox::binder {

/// A socket whose closing takes seconds: unsent data, and nobody who reads it as long as this
/// lives.
class LingeringSocket {
 public:
  LingeringSocket() {
    const int small = 4096;
    setsockopt(socket_.get(), SOL_SOCKET, SO_SNDBUF, &small, sizeof small);
    const UniqueFd listener(socket(AF_INET, SOCK_STREAM, 0));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    auto* const name = reinterpret_cast<sockaddr*>(&address);
    socklen_t size = sizeof address;
    setsockopt(listener.get(), SOL_SOCKET, SO_RCVBUF, &small, sizeof small);
    EXPECT_EQ(bind(listener.get(), name, size), 0);
    EXPECT_EQ(listen(listener.get(), 1), 0);
    EXPECT_EQ(getsockname(listener.get(), name, &size), 0);
    EXPECT_EQ(connect(socket_.get(), name, size), 0);
    reader_ = UniqueFd(accept(listener.get(), nullptr, nullptr));
    const linger seconds{.l_onoff = 1, .l_linger = 5};
    setsockopt(socket_.get(), SOL_SOCKET, SO_LINGER, &seconds, sizeof seconds);
    const std::vector<char> bytes(1 << 16);
    while (send(socket_.get(), bytes.data(), bytes.size(), MSG_DONTWAIT) > 0) {
    }
  }

  /// Sends the only reference to it, with one byte. False when the receiver's system refuses. Takes
  /// these seconds itself when the receiver has dropped its reference before this drops its own.
  bool SendThrough(int fd, int flags = 0) {
    char byte = 'x';
    iovec part{.iov_base = &byte, .iov_len = 1};
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
    msghdr message{};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = sizeof control;
    cmsghdr* const rights = CMSG_FIRSTHDR(&message);
    rights->cmsg_level = SOL_SOCKET;
    rights->cmsg_type = SCM_RIGHTS;
    rights->cmsg_len = CMSG_LEN(sizeof(int));
    const int socket = socket_.get();
    std::memcpy(CMSG_DATA(rights), &socket, sizeof socket);
    if (sendmsg(fd, &message, flags | MSG_NOSIGNAL) != 1) return false;
    socket_ = UniqueFd();
    return true;
  }

 private:
  UniqueFd socket_{::socket(AF_INET, SOCK_STREAM, 0)};
  UniqueFd reader_;
};

}  // namespace kvox::binder
