// A hostile client: hostile_client ATTACK SEED MILLISECONDS [USER GROUP].
//
// It prints "attacking" once the attack has begun. The attack "connect" only tries to connect; its
// exit status is 0 or errno.
#include <grp.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <iterator>

#include "interface/service_name.h"
#include "kvox/common/unique_fd.h"
#include "tests/system/hostile/attacker.h"

namespace kvox {
namespace {

constexpr struct {
  std::string_view name;
  void (*run)(Attacker& attacker);
} kAttacks[] = {
    {"cut_frames", CutFrames},
    {"oversized_frames", OversizedFrames},
    {"random_bytes", RandomBytes},
    {"random_calls", RandomCalls},
    {"mutated_calls", MutatedCalls},
    {"nested_sizes", NestedSizes},
    {"connect_and_go", ConnectAndGo},
    {"hold_connections", HoldConnections},
    {"say_nothing", SayNothing},
    {"die_in_every_state", DieInEveryState},
    {"flood_questions", FloodQuestions},
    {"flood_replies", FloodReplies},
    {"never_read", NeverRead},
    {"heavy_calls", HeavyCalls},
    {"slow_calls", SlowCalls},
    {"huge_counts", HugeCounts},
    {"foreign_objects", ForeignObjects},
    {"many_objects", ManyObjects},
    {"dead_callbacks", DeadCallbacks},
    {"hanging_callbacks", HangingCallbacks},
    {"pass_descriptors", PassDescriptors},
    {"flood_behind_callbacks", FloodBehindCallbacks},
};

/// 0, or errno.
int Connect(const std::string& path) {
  const UniqueFd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_un address;
  std::string error;
  if (!binder::MakeAddress(path, &address, &error)) return ENAMETOOLONG;
  return connect(fd.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 ? 0 : errno;
}

/// Permanently, with no other group.
bool Become(uid_t user, gid_t group) {
  return setgroups(0, nullptr) == 0 && setresgid(group, group, group) == 0 &&
         setresuid(user, user, user) == 0;
}

int Main(int argc, char** argv) {
  if (argc != 4 && argc != 6) return EXIT_FAILURE;
  const std::string_view name = argv[1];
  // The test measures the daemon, not who gets the CPU.
  static_cast<void>(nice(19));
  if (argc == 6 &&
      !Become(static_cast<uid_t>(std::atoi(argv[4])), static_cast<gid_t>(std::atoi(argv[5])))) {
    std::perror("hostile_client: cannot become another user");
    return EXIT_FAILURE;
  }
  const std::string path = binder::SocketPath(binder::RuntimeDirectory(), KvoxDescriptor());
  if (name == "connect") return Connect(path);
  const auto* attack = std::find_if(std::begin(kAttacks), std::end(kAttacks),
                                    [&](const auto& candidate) { return candidate.name == name; });
  if (attack == std::end(kAttacks)) return EXIT_FAILURE;
  Attacker attacker(path, static_cast<uint32_t>(std::atoi(argv[2])),
                    std::chrono::milliseconds(std::atoi(argv[3])));
  attack->run(attacker);
  std::printf("%s: %lld rounds\n", argv[1], static_cast<long long>(attacker.rounds()));
  return testing::UnitTest::GetInstance()->Failed() ? EXIT_FAILURE : EXIT_SUCCESS;
}

}  // namespace
}  // namespace kvox

int main(int argc, char** argv) {
  return kvox::Main(argc, argv);
}
