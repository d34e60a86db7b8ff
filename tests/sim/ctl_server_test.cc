// The socket of `kvosim ctl`: misbehaving clients, and a misbehaving server.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>

#include <string>
#include <thread>
#include <vector>

#include "sim/ctl.h"
#include "tests/support/temp_directory.h"

namespace kvox::sim {
namespace {

using ::testing::HasSubstr;
using ::testing::StartsWith;

constexpr uint64_t kMs = 1'000'000;

class CtlServerTest : public ::testing::Test {
 protected:
  CtlServerTest() {
    signal(SIGPIPE, SIG_IGN);
    // Longer than the address of a socket may be.
    std::filesystem::create_directory(path_);
    devices_.emplace(path_);
  }
  ~CtlServerTest() override {
    EXPECT_EQ(Ask("end\n"), "ok\nbye\n");
    loop_.join();
    server_.reset();
    event_base_free(base_);
  }

  void Serve(uint64_t timeout_ns) {
    const auto handle = [](const std::vector<std::string>& words) -> CtlReply {
      if (words == std::vector<std::string>{"end"}) return {true, "bye", true};
      if (words == std::vector<std::string>{"long"}) return {true, std::string(17 << 20, 'x')};
      return {false, std::to_string(words.size()) + " words"};
    };
    server_.emplace(base_, *devices_, handle, timeout_ns);
    loop_ = std::thread([this] { event_base_dispatch(base_); });
  }
  UniqueFd Connect() const {
    UniqueFd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const UniqueFd directory(open(path_.c_str(), O_PATH | O_CLOEXEC));
    const sockaddr_un address = SocketAddress(directory, kCtlName);
    EXPECT_EQ(connect(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    return fd;
  }
  static void Send(const UniqueFd& fd, const std::string& text) {
    EXPECT_EQ(send(fd.get(), text.data(), text.size(), MSG_NOSIGNAL),
              static_cast<ssize_t>(text.size()));
  }
  std::string Ask(const std::string& text) const {
    const UniqueFd fd = Connect();
    Send(fd, text);
    std::string reply(1000, '\0');
    const ssize_t size = recv(fd.get(), reply.data(), reply.size(), MSG_WAITALL);
    reply.resize(static_cast<size_t>(std::max<ssize_t>(size, 0)));
    return reply;
  }

  const TempDirectory directory_;
  const std::filesystem::path path_ = directory_ / std::string(120, 'd');
  event_base* const base_ = event_base_new();
  std::optional<DeviceDirectory> devices_;
  std::optional<CtlServer> server_;
  std::thread loop_;
};

TEST_F(CtlServerTest, OneClientDoesNotDisturbAnother) {
  Serve(100 * kMs);
  std::vector<UniqueFd> mute;
  for (size_t i = 0; i < CtlServer::kMaxClients + 4; ++i) mute.push_back(Connect());
  const UniqueFd half = Connect();
  Send(half, "stat");
  EXPECT_THAT(Ask(std::string(5000, 'x')), StartsWith("refused\nthe line is too long"));
  EXPECT_EQ(Ask(std::string(1023, 'x') + "\n"), "refused\n1 words\n");
  EXPECT_THAT(Ask(std::string(1025, 'x') + "\n"), StartsWith("refused\nthe line is too long"));
  EXPECT_EQ(Ask("\n"), "refused\n0 words\n");
  EXPECT_EQ(Ask(std::string("a \0\xff\n", 5)), "refused\n2 words\n");
  EXPECT_EQ(Ask("a b c\nd\n"), "refused\n3 words\n");
  char byte = 0;
  EXPECT_EQ(recv(half.get(), &byte, 1, 0), 0) << "its time was over";
}

TEST_F(CtlServerTest, AnEndlessReplyIsRefused) {
  Serve(20'000 * kMs);
  ::testing::internal::CaptureStderr();
  EXPECT_EQ(RunCtl(path_, {"long"}), 3);
  EXPECT_THAT(::testing::internal::GetCapturedStderr(),
              HasSubstr("(its reply is longer than 16777216 bytes)"));
}

TEST(CtlClientTest, AReplyThatTricklesHasAnEnd) {
  const TempDirectory directory;
  const UniqueFd parent(open(directory.path().c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
  const sockaddr_un address = SocketAddress(parent, kCtlName);
  const UniqueFd listener(socket(AF_UNIX, SOCK_STREAM, 0));
  ASSERT_EQ(bind(listener.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  ASSERT_EQ(listen(listener.get(), 1), 0);
  std::thread trickle([&] {
    const UniqueFd client(accept(listener.get(), nullptr, nullptr));
    while (send(client.get(), "o", 1, MSG_NOSIGNAL) == 1) poll(nullptr, 0, 100);
  });
  ::testing::internal::CaptureStderr();
  EXPECT_EQ(RunCtl(directory.path(), {"stat"}), 3);
  EXPECT_THAT(::testing::internal::GetCapturedStderr(), HasSubstr("(it takes too long)"));
  trickle.join();
}

}  // namespace
}  // namespace kvox::sim
