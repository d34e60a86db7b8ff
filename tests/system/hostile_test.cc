// Effects of a hostile client on the whole daemon: how long others wait, and what the daemon has
// released when the client is gone.
#include <android/binder_manager.h>
#include <kvox_host/binder_host.h>
#include <sys/stat.h>

#include <aidl/kvox/IKvox.h>

#include <algorithm>
#include <chrono>
#include <thread>

#include "interface/service_name.h"
#include "platform/linux/runtime_directory.h"
#include "tests/system/system_fixture.h"

namespace kvox {
namespace {

using aidl::kvox::IKvox;
using std::chrono::milliseconds;

#if defined(KVOX_SANITIZED)
constexpr bool kSanitized = true;
#else
constexpr bool kSanitized = false;
#endif

constexpr int kStranger = 65534;
constexpr auto kMeasureTime = milliseconds(300);
/// Until a relay's client has been called often enough to use up its threads.
constexpr auto kCallbackTime = milliseconds(1200);
/// A few milliseconds.
constexpr auto kSlack = kSanitized ? milliseconds(50) : milliseconds(10);
/// Far below the sum of one user's limits.
constexpr int64_t kMostKib = kSanitized ? INT64_MAX / 2 : 160 * 1024;

/// How long commands of a client took.
struct Latency {
  std::chrono::microseconds median;
  std::chrono::microseconds late;  // 19 of 20 were faster
  std::chrono::microseconds worst;
  size_t count;

  std::string Text() const {
    return "median " + std::to_string(median.count()) + " us, 95 % " +
           std::to_string(late.count()) + " us, worst " + std::to_string(worst.count()) +
           " us of " + std::to_string(count);
  }
};

class HostileTest : public SystemTest {
 protected:
  void SetUp() override {
    std::filesystem::permissions(directory_.path(), std::filesystem::perms(0755));
  }
  void TearDown() override {
    polite_.reset();
    kvox_host::StopBinder();
  }

  /// A daemon without a co-processor, and a client of it.
  void StartWithClient() {
    if (simulator_ == nullptr) MakeNodes();
    StartDaemon();
    polite_ = IKvox::fromBinder(ndk::SpAIBinder(AServiceManager_waitForService(KvoxDescriptor())));
    ASSERT_NE(polite_, nullptr);
  }

  /// Runs an attack; as another user of the group where we may.
  std::unique_ptr<Process> Attack(const std::string& name, std::chrono::microseconds time,
                                  int seed) {
    std::vector<std::string> words = {name, std::to_string(seed),
                                      std::to_string(time / milliseconds(1))};
    if (geteuid() == 0) {
      words.push_back(std::to_string(kStranger));
      words.push_back(std::to_string(getegid()));
    }
    const std::string output = name + std::to_string(seed);
    return std::make_unique<Process>(HOSTILE_CLIENT_PROGRAM, words, directory_ / output);
  }
  static bool Attacking(const Process& process) {
    return WaitFor([&] { return CountOf("attacking", process.Out()) == 1; });
  }

  /// One command after the other, with and without the service's lock, at a client's pace.
  Latency Measure(std::chrono::microseconds time) {
    std::vector<std::chrono::microseconds> taken;
    const auto end = std::chrono::steady_clock::now() + time;
    while (std::chrono::steady_clock::now() < end) {
      const auto start = std::chrono::steady_clock::now();
      IKvox::CommandResult result;
      const auto status =
          taken.size() % 2 == 0 ? polite_->Ping() : polite_->ListProcessors(&result);
      taken.push_back(std::chrono::duration_cast<std::chrono::microseconds>(
          std::chrono::steady_clock::now() - start));
      if (!status.isOk()) {
        ADD_FAILURE() << status;
        break;
      }
      std::this_thread::sleep_for(milliseconds(2));
    }
    std::ranges::sort(taken);
    return {taken[taken.size() / 2], taken[taken.size() * 19 / 20], taken.back(), taken.size()};
  }

  /// All descriptors and threads are released, and nearly all memory.
  void ExpectGivenBack(const ResourceUsage& before) {
    ResourceUsage now;
    constexpr int64_t kRest = 6 * 1024;
    EXPECT_TRUE(WaitFor([&] {
      now = DaemonResources();
      return now.descriptors == before.descriptors && now.threads == before.threads &&
             (kSanitized || now.memory_kib <= before.memory_kib + kRest);
    })) << before.Text()
        << " -> " << now.Text();
  }

  std::shared_ptr<IKvox> polite_;
};

/// The command of an attack that others may have to wait for, once.
enum class Command { kQuick, kLargest, kWithoutCoprocessor };

struct AttackRow {
  const char* name;
  int processes;
  Command command = Command::kQuick;
};

/// Attacks on one daemon, one after the other.
struct AttackGroup {
  const char* name;
  /// Floods need longer, until their connections have sent so much that the daemon gives the memory
  /// back; and so do calls that are few in a second.
  milliseconds measure_time;
  std::vector<AttackRow> attacks;
};

void PrintTo(const AttackGroup& group, std::ostream* out) {
  *out << group.name;
}

class AttackTest : public HostileTest, public ::testing::WithParamInterface<AttackGroup> {
 protected:
  /// The longest of a few.
  std::chrono::microseconds TimeOf(Command command) {
    std::chrono::microseconds longest{};
    const std::vector<std::string> most(130'000);
    for (int i = 0; i < 3 && command != Command::kQuick; ++i) {
      const auto start = std::chrono::steady_clock::now();
      IKvox::CommandResult result;
      const auto status = command == Command::kLargest ? polite_->Debug(most, &result)
                                                       : polite_->TapList(2, &result);
      EXPECT_TRUE(status.isOk()) << status;
      longest = std::max(longest, std::chrono::duration_cast<std::chrono::microseconds>(
                                      std::chrono::steady_clock::now() - start));
    }
    return longest;
  }

  /// `before` is what a client measured before the attack. Returns what it measures afterwards.
  Latency Withstand(const AttackRow& row, milliseconds measure_time, const Latency& before) {
    const std::chrono::microseconds command = TimeOf(row.command);
    const auto time = measure_time + 4 * command;
    const ResourceUsage resources = DaemonResources();
    std::vector<std::unique_ptr<Process>> attackers;
    for (int i = 0; i < row.processes; ++i) {
      attackers.push_back(Attack(row.name, 2 * time, i + 1));
    }
    for (const auto& attacker : attackers) EXPECT_TRUE(Attacking(*attacker)) << attacker->Out();
    const Latency during = Measure(time);
    const ResourceUsage peak = DaemonResources();
    for (const auto& attacker : attackers) {
      EXPECT_EQ(attacker->Wait(), 0) << attacker->Out() << attacker->Err();
    }
    ExpectGivenBack(resources);
    const Latency after = Measure(kMeasureTime);
    // Even without the attack the machine itself is sometimes late, and other processes delay a
    // busy daemon more than an idle one. A client may wait for a running command, but not for a
    // queue.
    const std::string figures = before.Text() + "\n" + during.Text() + "\n" + after.Text();
    EXPECT_LE(during.median, std::max(before.median, after.median) + command + kSlack) << figures;
    EXPECT_LE(during.late, std::max(before.late, after.late) + 2 * command + 6 * kSlack) << figures;
    EXPECT_LE(during.worst, std::max(before.worst, after.worst) + 2 * command + 30 * kSlack)
        << figures;
    EXPECT_LE(peak.memory_kib, resources.memory_kib + kMostKib);
    RecordProperty(row.name, figures);
    return after;
  }
};

TEST_P(AttackTest, DelaysNobodyAndLeavesNothingBehind) {
  StartWithClient();
  Latency quiet = Measure(kMeasureTime);
  for (const AttackRow& attack : GetParam().attacks) {
    SCOPED_TRACE(attack.name);
    quiet = Withstand(attack, GetParam().measure_time, quiet);
  }
}

const AttackGroup kAttackGroups[] = {
    {"Frames",
     kMeasureTime,
     {{"cut_frames", 2},
      {"oversized_frames", 2},
      {"random_bytes", 2},
      {"random_calls", 2},
      {"mutated_calls", 2},
      {"nested_sizes", 2}}},
    {"Connections",
     kMeasureTime,
     {{"connect_and_go", 4},
      {"hold_connections", 8},
      {"say_nothing", 2},
      {"die_in_every_state", 2}}},
    {"Floods",
     2 * kMeasureTime,
     {{"flood_questions", 2}, {"flood_replies", 2}, {"huge_counts", 4}}},
    {"Calls",
     2 * kMeasureTime,
     {{"never_read", 4, Command::kLargest},
      {"heavy_calls", 4, Command::kLargest},
      {"slow_calls", 2, Command::kWithoutCoprocessor}}},
    {"Objects", kMeasureTime, {{"foreign_objects", 2}, {"many_objects", 2}, {"dead_callbacks", 2}}},
};

INSTANTIATE_TEST_SUITE_P(By, AttackTest, ::testing::ValuesIn(kAttackGroups),
                         [](const auto& row) { return row.param.name; });

/// A separate user, and a directory that others may search.
class AccessTest : public HostileTest {
 protected:
  void SetUp() override {
    if (geteuid() != 0) GTEST_SKIP() << "only root can become another user";
    HostileTest::SetUp();
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
  ASSERT_EQ(chmod(directory.c_str(), 0777), 0);
  ExpectRefused(directory, "everybody may write to it");
  ASSERT_EQ(chmod(directory.c_str(), 0700), 0);
  ASSERT_EQ(chown(directory.c_str(), kStranger, kStranger), 0);
  ExpectRefused(directory, "it belongs to user 65534");
  // Root's own link to root's own directory is not a trap.
  ASSERT_EQ(chown(directory.c_str(), 0, 0), 0);
  ASSERT_EQ(lchown(link.c_str(), 0, 0), 0);
  setenv("KVOX_RUNTIME_DIR", link.c_str(), 1);
  StartDaemon();
}

/// The callback of a running relay: the others' audio continues, threads are bounded, and all end
/// with the clients.
TEST_F(HostileTest, CallbacksThatNeverReturnHoldUpNeitherAudioNorCommands) {
  StartSimulator();
  StartWithClient();
  ASSERT_TRUE(DaemonLogs("Found 8 tap-out buffers, 8 inject buffers"));
  Call("EnableUseCase AREL_TELE true");
  Call("EnableUseCase MIC_IN true");
  const Latency before = Measure(kMeasureTime);
  const ResourceUsage resources = DaemonResources();
  const auto attacker = Attack("hanging_callbacks", kCallbackTime, 1);
  ASSERT_TRUE(Attacking(*attacker)) << attacker->Out();
  ASSERT_TRUE(DaemonLogs("art0: no thread to call the client with"));
  const int64_t injected = Figure("vpdl.0", "received");
  const Latency during = Measure(kMeasureTime);
  EXPECT_GT(Figure("vpdl.0", "received"), injected) << "audio goes on";
  EXPECT_LE(DaemonResources().threads, resources.threads + 8) << "as many as one process may have";
  EXPECT_EQ(attacker->Wait(), 0) << attacker->Out() << attacker->Err();
  EXPECT_LE(during.median, before.median + kSlack) << before.Text() << "\n" << during.Text();
  EXPECT_TRUE(WaitFor([&] { return DaemonResources().threads <= resources.threads; }))
      << resources.threads << " -> " << DaemonResources().threads;
}

}  // namespace
}  // namespace kvox
