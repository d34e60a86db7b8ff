#include "tests/system/mute_service.h"
#include "tests/system/system_fixture.h"

namespace kvox {
namespace {

using ::testing::HasSubstr;

/// Waiting, and what ends it.
class ClientWaitTest : public SystemTest {};

TEST_F(ClientWaitTest, EndsOnceItIsThere) {
  auto waiting = Begin("wait processor art0 --enabled --timeout 60 --json");
  StartBoth();
  Do("wait daemon --timeout 60");
  Do("wait buffer tapout0 --timeout 60");
  Do("wait tap imic.0 --timeout 60");
  Do("processor new art0 pass");
  Do("processor enable art0");
  EXPECT_EQ(waiting->Wait(), 0) << waiting->Err();
  EXPECT_THAT(waiting->Out(), HasSubstr("\"waited_ms\": "));
}

TEST_F(ClientWaitTest, GivesUpInTimeAndSaysWhy) {
  ExpectRefusal("wait daemon --timeout 0.1", 6, "did not come within 0.1 s: ");
  StartDaemon();
  ExpectRefusal("wait buffer tapout0 --timeout 0.1", 6, "there is no buffer 'tapout0'");
  ExpectRefusal("wait tap imic.0 --timeout 3", 6, "cores 2, 3 and 4 do not answer");
  Do("processor new pass");
  ExpectRefusal("wait processor pasx --timeout 0.1", 6, "did you mean 'pass'?");
  ExpectRefusal("wait processor pass --enabled --timeout 0.1", 6, "it is not enabled");
  ExpectRefusal("wait tap 300:imic.0 --timeout 60", 2, "is not a tap point's name");
  daemon_->Freeze();
  ExpectRefusal("wait daemon --timeout 0.3", 6, "Ping was not answered within 1 s");
  daemon_->Signal(SIGCONT);
}

TEST_F(ClientWaitTest, ASilentDaemonTakesNoLongerThanTheTimeout) {
  MuteService service(directory_ / "run");
  auto waiting = Begin("processor list --timeout 0.2");
  service.TakeCall();
  EXPECT_EQ(waiting->Wait(), 6);
  EXPECT_THAT(waiting->Err(), HasSubstr("ListProcessors was not answered within 0.2 s"));
}

TEST_F(ClientWaitTest, AnotherInterfaceIsNoDaemon) {
  MuteService service(directory_ / "run");
  const auto client = Begin("ping");
  service.TakeCall("other.IThing");
  EXPECT_EQ(client->Wait(), 3);
  EXPECT_THAT(client->Err(), HasSubstr("kvox.IKvox/default has another interface"));
}

TEST_F(ClientWaitTest, ASocketOfAStrangerIsNotTrusted) {
  if (geteuid() != 0) GTEST_SKIP() << "only root can be somebody else";
  std::filesystem::permissions(directory_.path(), std::filesystem::perms(0777));
  std::filesystem::permissions(directory_ / "run", std::filesystem::perms(0777));
  const auto listen = [this] {  // who does that is the owner
    EXPECT_EQ(seteuid(65534), 0);
    auto service = std::make_unique<MuteService>(directory_ / "run");
    EXPECT_EQ(seteuid(0), 0);
    return service;
  };
  auto stranger = listen();
  ExpectRefusal("ping", 5, "belongs to user 65534, who is neither root nor you");
  for (const char* const user : {"65534", "nobody"}) {
    stranger.reset();
    stranger = listen();
    setenv("KVOX_DAEMON_USER", user, 1);
    const auto client = Begin("ping --timeout 0.2");
    unsetenv("KVOX_DAEMON_USER");
    stranger->TakeCall();
    EXPECT_EQ(client->Wait(), 6) << "it talks to that one: " << client->Err();
  }
}

TEST_F(ClientWaitTest, ASocketOfSomebodyElseIsNoAbsentDaemon) {
  namespace fs = std::filesystem;
  if (geteuid() != 0) GTEST_SKIP() << "only root can be somebody else";
  MakeNodes();
  StartDaemon();
  fs::permissions(directory_.path(), fs::perms::others_exec, fs::perm_options::add);
  fs::permissions(directory_ / "run", fs::perms::others_exec, fs::perm_options::add);
  fs::copy_file(KVOXCTL_PROGRAM, directory_ / "client");
  Process client("/usr/bin/setpriv",
                 {"--reuid=65534", "--regid=65534", "--clear-groups",
                  (directory_ / "client").string(), "ping"},
                 directory_ / "denied");
  EXPECT_EQ(client.Wait(), 5);
  EXPECT_THAT(client.Err(), HasSubstr("may not be used by this user"));
}

}  // namespace
}  // namespace kvox
