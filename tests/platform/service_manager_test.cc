// How services are registered and found.
#include <sys/stat.h>

#include <atomic>
#include <fstream>
#include <thread>

#include "platform/linux/limits.h"
#include "platform/linux/service_manager.h"
#include "tests/platform/binder_fixture.h"
#include "tests/platform/raw_peer.h"

namespace kvox::binder {
namespace {

using ServiceManagerTest = BinderTest;

std::string FailedLookup(const char* name) {
  EXPECT_EQ(AServiceManager_checkService(name), nullptr);
  return kvox::ServiceError();
}

mode_t ModeOf(const std::string& path) {
  struct stat status {};
  EXPECT_EQ(stat(path.c_str(), &status), 0) << path;
  return status.st_mode & 0777;
}

binder_exception_t Add(const std::shared_ptr<EchoService>& service, const char* name) {
  return AServiceManager_addService(service->asBinder().get(), name);
}

#define EXPECT_CONTAINS(text, part) EXPECT_NE((text).find(part), std::string::npos) << (text)

TEST_F(ServiceManagerTest, NamesAreCheckedBothWays) {
  const auto service = ndk::SharedRefBase::make<EchoService>();
  const std::string longest(127, 'a');
  const std::string too_long = longest + "a";
  for (const char* name : {"", "a b", "a:b", "a\n", "h\xc3\xa9", too_long.c_str()}) {
    EXPECT_EQ(Add(service, name), EX_ILLEGAL_ARGUMENT) << name;
    EXPECT_CONTAINS(FailedLookup(name), "no service name");
    EXPECT_EQ(AServiceManager_waitForService(name), nullptr);
  }
  EXPECT_EQ(Add(service, nullptr), EX_ILLEGAL_ARGUMENT);
  EXPECT_EQ(AServiceManager_addService(nullptr, kName), EX_ILLEGAL_ARGUMENT);
  EXPECT_TRUE(IsServiceName(longest));
  EXPECT_TRUE(IsServiceName("kvox.IKvox/default_2-x"));
  EXPECT_EQ(SocketPath("/run/kvox", "../a/b"), "/run/kvox/..:a:b.sock");
}

TEST_F(ServiceManagerTest, TheDirectoryAndTheSocketAreForTheGroup) {
  const std::string nested = directory_ + "/a/b";
  setenv("KVOX_RUNTIME_DIR", (nested + "//").c_str(), 1);
  const mode_t before = umask(077);
  Serve(1);
  umask(before);
  EXPECT_EQ(ModeOf(nested), 0750u);
  EXPECT_EQ(ModeOf(SocketPath(nested, kName)), 0660u);
}

TEST_F(ServiceManagerTest, ASecondRegistrationReplacesTheFirst) {
  Serve(1);
  const ndk::SpAIBinder found(AServiceManager_checkService(kName));
  EXPECT_EQ(found, service_->asBinder()) << "the object itself, within its process";
  ServiceLink link = ConnectToService(Path());
  const auto next = ndk::SharedRefBase::make<EchoService>();
  ASSERT_EQ(Add(next, kName), EX_NONE);
  const auto soon = std::chrono::steady_clock::now() + std::chrono::seconds(30);
  const ndk::SpAIBinder root = link.connection->QueryRoot(soon);
  ASSERT_NE(root.get(), nullptr);
  EXPECT_NE(root, link.root);
  EXPECT_EQ(link.connection->QueryRoot(soon), root);
  EXPECT_TRUE(IEcho::fromBinder(root)->Note(1).isOk());
  EXPECT_TRUE(WaitFor([&] { return next->notes().size() == 1; }));
  EXPECT_TRUE(IEcho::fromBinder(link.root)->Note(2).isOk()) << "the first lives on for its holders";
}

TEST_F(ServiceManagerTest, DirectoriesThatCannotBeUsedAreNamed) {
  const auto service = ndk::SharedRefBase::make<EchoService>();
  const std::string file = directory_ + "/file";
  std::ofstream(file) << "x";
  setenv("KVOX_RUNTIME_DIR", file.c_str(), 1);
  EXPECT_NE(Add(service, kName), EX_NONE);
  EXPECT_CONTAINS(kvox::ServiceError(), file);
  EXPECT_CONTAINS(kvox::ServiceError(), "KVOX_RUNTIME_DIR");

  setenv("KVOX_RUNTIME_DIR", (directory_ + "/" + std::string(90, 'd')).c_str(), 1);
  EXPECT_EQ(Add(service, kName), EX_ILLEGAL_ARGUMENT);
  EXPECT_CONTAINS(kvox::ServiceError(), "too long");
  EXPECT_CONTAINS(FailedLookup(kName), "too long");
}

TEST_F(ServiceManagerTest, ClientsLookInTheUsersDirectoryThenInTheSystems) {
  unsetenv("KVOX_RUNTIME_DIR");
  setenv("XDG_RUNTIME_DIR", directory_.c_str(), 1);
  const std::vector<std::string> expected = {directory_ + "/kvox", "/run/kvox"};
  EXPECT_EQ(LookupDirectories(), expected);
  const std::string error = FailedLookup("kvoxtest.IAbsent/x");
  for (const char* part : {"kvoxtest.IAbsent/x", "/kvox, /run/kvox", "KVOX_RUNTIME_DIR",
                           "XDG_RUNTIME_DIR", "start the daemon"}) {
    EXPECT_CONTAINS(error, part);
  }
  unsetenv("XDG_RUNTIME_DIR");
  EXPECT_EQ(LookupDirectories(), std::vector<std::string>{"/run/kvox"});
}

TEST(ServicePort, NobodyCanShutTheOthersOut) {
  ServicePort port(nullptr);
  pid_t pid = 1000;
  const auto fill = [&](uid_t uid) {
    int admitted = 0;
    while (port.Admit({uid, ++pid}) == AdmitResult::kAdmitted) ++admitted;
    return admitted;
  };
  const uid_t own = geteuid();
  for (int i = 0; i < kMaxConnectionsOfProcess; ++i) {
    EXPECT_EQ(port.Admit({own + 1, 7}), AdmitResult::kAdmitted);
  }
  EXPECT_EQ(port.Admit({own + 1, 7}), AdmitResult::kTooManyOfProcess);
  EXPECT_EQ(port.Admit({own + 1, 0}), AdmitResult::kAdmitted) << "of another pid namespace";
  EXPECT_EQ(fill(own + 1), 56 - 9) << "half of 112";
  EXPECT_EQ(port.Admit({own + 1, 8}), AdmitResult::kTooManyOfUser);
  std::vector<int> shares;
  for (uid_t uid = own + 2; uid < own + 9; ++uid) shares.push_back(fill(uid));
  EXPECT_EQ(shares, (std::vector{28, 14, 7, 3, 2, 1, 1}));
  EXPECT_EQ(port.Admit({own + 9, 9}), AdmitResult::kTooManyClients);
  EXPECT_EQ(fill(own), kConnections.kept);
  EXPECT_EQ(port.Admit({0, 9}), AdmitResult::kTooManyClients);
  port.Leave({own + 1, 7});
  EXPECT_EQ(port.Admit({own + 9, 9}), AdmitResult::kAdmitted);
}

/// Others that connect all the time do not keep a client out, however full the queue is.
TEST_F(ServiceManagerTest, ClientsThatWaitToBeAcceptedTakeTurns) {
  sockaddr_un address;
  std::string error;
  ASSERT_TRUE(MakeAddress(Path(), &address, &error)) << error;
  const auto* name = reinterpret_cast<const sockaddr*>(&address);
  UniqueFd listener(socket(AF_UNIX, SOCK_STREAM, 0));
  ASSERT_EQ(bind(listener.get(), name, sizeof address), 0);
  ASSERT_EQ(listen(listener.get(), 2), 0);
  std::atomic<bool> ends = false;
  std::atomic<int> connected = 0;
  std::vector<std::thread> others;
  for (int i = 0; i < 3; ++i) {
    others.emplace_back([&] {
      while (!ends) {
        const UniqueFd fd(socket(AF_UNIX, SOCK_STREAM, 0));
        const sa_family_t unnamed = AF_UNIX;  // the system gives it a name
        bind(fd.get(), reinterpret_cast<const sockaddr*>(&unnamed), sizeof unnamed);
        if (connect(fd.get(), name, sizeof address) == 0) ++connected;
      }
    });
  }
  ASSERT_TRUE(WaitFor([&] { return connected >= 3; }));
  std::thread client([&] { EXPECT_NE(ConnectToService(Path()).error, ""); });
  int accepted = 0;
  for (socklen_t size = 0; size != sizeof(sa_family_t) && accepted < 100; ++accepted) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
    sockaddr_un peer;
    size = sizeof peer;
    const UniqueFd fd(accept(listener.get(), reinterpret_cast<sockaddr*>(&peer), &size));
  }
  EXPECT_LT(accepted, 50);
  ends = true;
  listener = UniqueFd();
  for (std::thread& other : others) other.join();
  client.join();
}

TEST_F(ServiceManagerTest, ClientsBeyondTheLimitAreToldSo) {
  Serve(1);
  {
    std::vector<RawPeer> peers;
    for (int i = 0; i < kMaxConnectionsOfProcess; ++i) {
      peers.emplace_back(Path());
      peers.back().Greet();
      ASSERT_EQ(peers.back().greeting().result, AdmitResult::kAdmitted);
    }
    EXPECT_CONTAINS(ConnectToService(Path()).error, "takes 8 clients of one process");
  }
  EXPECT_TRUE(WaitFor([&] { return ConnectToService(Path()).error.empty(); }));
}

}  // namespace
}  // namespace kvox::binder
