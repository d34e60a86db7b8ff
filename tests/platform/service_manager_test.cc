// How services are registered and found.
#include <sys/stat.h>

#include <fstream>

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
  const auto admit = [&](uid_t uid, pid_t first, int count) {
    for (pid_t pid = first; pid < first + count; ++pid) {
      EXPECT_EQ(port.Admit({uid, pid}), AdmitResult::kAdmitted) << uid << " " << pid;
    }
  };
  for (int i = 0; i < kMaxConnectionsOfProcess; ++i) admit(1, 7, 1);
  EXPECT_EQ(port.Admit({1, 7}), AdmitResult::kTooManyOfProcess);
  admit(1, 1000, kMaxConnectionsOfUser - kMaxConnectionsOfProcess);
  EXPECT_EQ(port.Admit({1, 8}), AdmitResult::kTooManyOfUser);
  for (int i = 0; i < kMaxConnectionsOfUser; ++i) admit(2, 0, 1);  // of another pid namespace
  EXPECT_EQ(port.Admit({3, 9}), AdmitResult::kTooManyClients);
  port.Leave({1, 7});
  EXPECT_EQ(port.Admit({2, 9}), AdmitResult::kTooManyOfUser);
  admit(3, 9, 1);
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
