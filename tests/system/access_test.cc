// Who may connect to the daemon, and which runtime directories it refuses.
#include <sys/stat.h>

#include "interface/service_name.h"
#include "platform/linux/runtime_directory.h"
#include "tests/system/system_fixture.h"

namespace kvox {
namespace {

constexpr int kStranger = 65534;

/// A separate user, and a directory that others may search.
class AccessTest : public SystemTest {
 protected:
  void SetUp() override {
    if (geteuid() != 0) GTEST_SKIP() << "only root can become another user";
    std::filesystem::permissions(directory_.path(), std::filesystem::perms(0755));
    MakeNodes();
  }
  /// 0 or the errno of a connection as another user with only that group.
  int Connect(int group) {
    Process client(HOSTILE_CLIENT_PROGRAM,
                   {"connect", "0", "0", std::to_string(kStranger), std::to_string(group)},
                   directory_ / "connect");
    return client.Wait();
  }
  static mode_t ModeOf(const std::string& path) {
    struct stat status {};
    EXPECT_EQ(lstat(path.c_str(), &status), 0) << path;
    return status.st_mode & 07777;
  }
  /// A daemon that is given `path` as its runtime directory refuses it and says `why`.
  void ExpectRefused(const std::string& path, const std::string& why) {
    setenv("KVOX_RUNTIME_DIR", path.c_str(), 1);
    Process daemon(KVOXD_PROGRAM, {}, directory_ / "refused");
    EXPECT_TRUE(WaitFor([&] { return CountOf(why, daemon.Err()) == 1; })) << daemon.Err();
    EXPECT_TRUE(WaitFor([&] { return CountOf("Failed to find kvox service", daemon.Err()) == 1; }));
  }
};

TEST_F(AccessTest, OnlyRootTheDaemonsUserAndTheGroupConnect) {
  const int group = static_cast<int>(getegid());
  std::filesystem::remove(directory_ / "run");
  const mode_t before = umask(0);
  StartDaemon();
  umask(before);
  const std::string socket = binder::SocketPath(directory_ / "run", KvoxDescriptor());
  EXPECT_EQ(ModeOf(directory_ / "run"), 0750u);
  EXPECT_EQ(ModeOf(socket), 0660u);
  EXPECT_EQ(Connect(group), 0);
  EXPECT_EQ(Connect(kStranger), EACCES);
  // Each of the two keeps strangers out by itself.
  std::filesystem::permissions(directory_ / "run", std::filesystem::perms(0755));
  EXPECT_EQ(Connect(group), 0);
  EXPECT_EQ(Connect(kStranger), EACCES);
  EXPECT_EQ(chmod((directory_ / "run").c_str(), 0750), 0);
  EXPECT_EQ(chmod(socket.c_str(), 0666), 0);
  EXPECT_EQ(Connect(kStranger), EACCES);
}

TEST_F(AccessTest, ADirectoryThatSomebodyElseRulesIsRefused) {
  const std::string directory = directory_ / "run";
  const std::string link = directory_ / "link";
  std::filesystem::create_symlink(directory, link);
  ASSERT_EQ(lchown(link.c_str(), kStranger, kStranger), 0);
  ExpectRefused(link, "it is a symbolic link of user 65534; give it to the daemon's user");
  for (const mode_t mode : {0777u, 0770u}) {
    ASSERT_EQ(chmod(directory.c_str(), mode), 0);
    ExpectRefused(directory, "others may write to it");
  }
  ASSERT_EQ(chmod(directory.c_str(), 0700), 0);
  ASSERT_EQ(chown(directory.c_str(), kStranger, kStranger), 0);
  ExpectRefused(directory, "it belongs to user 65534");
  // Root's own link to root's own directory is not a trap.
  ASSERT_EQ(chown(directory.c_str(), 0, 0), 0);
  ASSERT_EQ(lchown(link.c_str(), 0, 0), 0);
  setenv("KVOX_RUNTIME_DIR", link.c_str(), 1);
  StartDaemon();
}

}  // namespace
}  // namespace kvox
