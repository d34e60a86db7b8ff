// Descriptors that peers pass: none is taken, and closing them delays nobody.
#include <fcntl.h>
#include <signal.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <vector>

#include "platform/linux/closer.h"
#include "platform/linux/connection.h"
#include "platform/linux/service_port.h"
#include "tests/platform/binder_fixture.h"
#include "tests/platform/lingering_socket.h"
#include "tests/platform/raw_peer.h"

namespace kvox::binder {
namespace {

class DescriptorTest : public BinderTest {
 protected:
  void SetUp() override {
    BinderTest::SetUp();
    Serve(2);
  }
  void ExpectServiceWell() {
    EXPECT_EQ(Echo(*Client(), {1, 2, 3}), (std::vector<uint8_t>{1, 2, 3}));
  }
};

TEST_F(DescriptorTest, DescriptorsEndTheConnectionAndDelayNobody) {
  const auto port = std::make_shared<ServicePort>(service_->asBinder());
  const Credentials me{geteuid(), getpid()};
  for (const bool greeted : {false, true}) {
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
    LingeringSocket lingering;
    RawPeer peer{UniqueFd(ends[1])};
    ASSERT_EQ(fcntl(ends[0], F_SETFL, O_NONBLOCK), 0);
    ASSERT_EQ(port->Admit(me), AdmitResult::kAdmitted);
    Connection::Accept(UniqueFd(ends[0]), me, port);
    if (greeted) peer.Greet();
    ASSERT_TRUE(lingering.SendThrough(peer.fd()));
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_TRUE(peer.Closed()) << greeted;
    ExpectServiceWell();
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(3));
  }

  // Where the system can, it does not even let them through.
  LingeringSocket lingering;
  RawPeer peer(Path());
  peer.Greet();
  EXPECT_TRUE(!lingering.SendThrough(peer.fd()) || peer.Closed());
}

void Ignore(int) {}

/// The thread interrupts itself with a signal that the program has no handler for.
TEST(Closer, UsersTakeTurnsAndNothingTakesLong) {
  struct sigaction mine {};
  sigaction(SIGRTMAX - 1, nullptr, &mine);
  const bool unused = mine.sa_handler == SIG_DFL;
  if (unused) signal(SIGRTMAX - 1, Ignore);
  ASSERT_TRUE(Closer::Get().Start());
  constexpr int kMany = 40;
  std::vector<UniqueFd> sockets;
  std::vector<LingeringSocket> lingering(kMany);
  for (int i = 0; i < kMany; ++i) {
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
    sockets.emplace_back(ends[0]);
    ASSERT_TRUE(lingering[static_cast<size_t>(i)].SendThrough(ends[1]));
    close(ends[1]);
  }
  std::atomic<int> closed = 0;
  const auto counted = [&] { return std::shared_ptr<void>(&closed, [&](void*) { ++closed; }); };
  const auto begin = std::chrono::steady_clock::now();
  for (UniqueFd& socket : sockets) Closer::Get().Close(std::move(socket), {1, 10}, counted());
  std::atomic<int> before = -1;
  int ends[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
  const UniqueFd other_end(ends[1]);
  const int earlier = closed;
  Closer::Get().Close(UniqueFd(ends[0]), {2, 20},
                      std::shared_ptr<void>(&before, [&](void*) { before = closed.load(); }));
  Closer::Get().Stop();
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(2));
  EXPECT_EQ(closed, kMany);
  EXPECT_LE(before, earlier + 4) << "the other user waited for all of them";
  sigaction(SIGRTMAX - 1, nullptr, &mine);
  EXPECT_TRUE(!unused || mine.sa_handler == Ignore);
}

}  // namespace
}  // namespace kvox::binder
