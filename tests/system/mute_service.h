// A service that greets its one client, takes the first call and never replies.
#pragma once

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <string>

#include "interface/service_name.h"
#include "kvox/common/unique_fd.h"
#include "platform/linux/frames.h"
#include "platform/linux/runtime_directory.h"

namespace kvox {

class MuteService {
 public:
  explicit MuteService(const std::string& directory)
      : path_(binder::SocketPath(directory, KvoxDescriptor())),
        listener_(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_un address;
    std::string error;
    EXPECT_TRUE(binder::MakeAddress(path_, &address, &error)) << error;
    EXPECT_EQ(bind(listener_.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    EXPECT_EQ(listen(listener_.get(), 1), 0);
  }

  ~MuteService() { unlink(path_.c_str()); }
  MuteService(const MuteService&) = delete;
  MuteService& operator=(const MuteService&) = delete;

  /// Waits until a client's call is there.
  void TakeCall(std::string descriptor = "kvox.IKvox") {
    client_ = UniqueFd(accept(listener_.get(), nullptr, nullptr));
    binder::ServiceGreeting greeting;
    greeting.descriptor_size = static_cast<uint32_t>(descriptor.size());
    greeting.address = 2;
    descriptor.resize(binder::PaddedSize(greeting.descriptor_size));
    send(client_.get(), &greeting, sizeof greeting, MSG_NOSIGNAL);
    send(client_.get(), descriptor.data(), descriptor.size(), MSG_NOSIGNAL);
    // A client that finds another interface makes no call: it ends the connection.
    char first[sizeof(binder::ClientGreeting) + sizeof(binder::FrameHeader)];
    EXPECT_GE(recv(client_.get(), first, sizeof first, MSG_WAITALL),
              static_cast<ssize_t>(sizeof(binder::ClientGreeting)));
  }

 private:
  const std::string path_;
  UniqueFd listener_;
  UniqueFd client_;
};

}  // namespace kvox
