#include "bench/client_bench.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <stdexcept>
#include <string>
#include <vector>

#include "bench/daemon_under_test.h"
#include "bench/distribution.h"

namespace kvox::bench {
namespace {

constexpr double kRatioAim = 3;

/// Runs a program to its end, its output thrown away. Answers how long that took in milliseconds.
double TimeProcess(std::vector<std::string> words) {
  std::vector<char*> argv;
  for (std::string& word : words) argv.push_back(word.data());
  argv.push_back(nullptr);
  posix_spawn_file_actions_t files;
  posix_spawn_file_actions_init(&files);
  posix_spawn_file_actions_addopen(&files, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
  pid_t pid = -1;
  int status = -1;
  const auto begin = std::chrono::steady_clock::now();
  const int failure = posix_spawnp(&pid, argv[0], &files, nullptr, argv.data(), environ);
  if (failure == 0) waitpid(pid, &status, 0);
  const auto end = std::chrono::steady_clock::now();
  posix_spawn_file_actions_destroy(&files);
  if (failure != 0 || status != 0) throw std::runtime_error("cannot run " + words.front());
  return std::chrono::duration<double, std::milli>(end - begin).count();
}

}  // namespace

void MeasureClientProcess(unsigned runs, Report& report) {
  const PrivateDirectory home;
  const DaemonUnderTest daemon(home);
  std::vector<double> bare;
  std::vector<double> measured;
  for (unsigned i = 0; i < runs; ++i) {
    bare.push_back(TimeProcess({"true"}));
    measured.push_back(TimeProcess({KVOXCTL_PROGRAM, "call", "Ping"}));
  }
  report.Add(
      {fmt::format("kvoxctl call Ping as a process, {} runs", runs),
       "true",
       "kvoxctl",
       {{"start to end, median",
         "ms",
         Median(bare),
         Median(measured),
         {},
         Aim{Aim::Of::kRatio, kRatioAim}},
        {"start to end, 99 %", "ms", Percentile(bare, 0.99), Percentile(measured, 0.99), {}, {}}}});
}

}  // namespace kvox::bench
