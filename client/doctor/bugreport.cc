#include "client/doctor/bugreport.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <filesystem>
#include <thread>

#include "client/flight/log_file.h"
#include "client/output/json.h"
#include "client/system/files.h"
#include "kvox/common/fixed_text.h"
#include "libkvox/units.h"

extern char** environ;

namespace kvox::client {
namespace {

using Words = std::vector<std::string>;
using Clock = std::chrono::steady_clock;

constexpr auto kLimit = std::chrono::seconds(20);  // of one part
constexpr size_t kMostTold = 1 << 20;
constexpr auto kPoll = std::chrono::milliseconds(10);
constexpr char kSelf[] = "/proc/self/exe";

struct Part {
  const char* file;
  const char* what;
  Words words;  // the command whose output it is
};

const std::vector<Part>& Parts() {
  static const std::vector<Part> parts = {
      {"doctor.txt", "kvoxctl doctor", {kSelf, "--timeout", "5", "doctor"}},
      {"why.txt", "kvoxctl why --last 60s", {kSelf, "why"}},
      {"metrics.txt", "kvoxctl metrics", {kSelf, "metrics"}},
      {"graph.txt", "kvoxctl graph", {kSelf, "--timeout", "5", "graph"}},
      {"processors.txt", "kvoxctl processor list", {kSelf, "--timeout", "5", "processor", "list"}},
      {"buffers.txt", "kvoxctl buffer list", {kSelf, "--timeout", "5", "buffer", "list"}},
      {"export.toml", "kvoxctl export", {kSelf, "--timeout", "5", "export"}},
      {"log.txt",
       "the last lines of kvoxd's log",
       {"sh", "-c",
        "logcat -d -s kvox kvox_utils 2>/dev/null || journalctl -u kvoxd -n 2000 --no-pager"}},
      {"machine.txt",
       "kernel, processors, memory, load, scheduling",
       {"sh", "-c",
        "uname -a; cat /etc/os-release /proc/cpuinfo /proc/meminfo /proc/loadavg "
        "/proc/sys/kernel/sched_rt_runtime_us; for p in $(pidof kvoxd); do "
        "cat /proc/$p/status /proc/$p/limits; done"}},
  };
  return parts;
}

/// Runs the command with its output in the file. False, with a line in the file, when it failed or
/// took too long.
bool RunInto(const std::string& path, const Words& words) {
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, path.c_str(),
                                   O_WRONLY | O_CREAT | O_APPEND, S_IRUSR | S_IWUSR);
  posix_spawn_file_actions_adddup2(&actions, STDOUT_FILENO, STDERR_FILENO);
  std::vector<char*> argv;
  for (const std::string& word : words) argv.push_back(const_cast<char*>(word.c_str()));
  argv.push_back(nullptr);
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETPGROUP);  // so that all of it can be ended
  pid_t pid = 0;
  const int error = posix_spawnp(&pid, argv[0], &actions, &attributes, argv.data(), environ);
  posix_spawnattr_destroy(&attributes);
  posix_spawn_file_actions_destroy(&actions);
  const auto note = [&](const std::string& text) {
    const UniqueFd file = OpenToAppend(path);
    WriteAll(file.get(), text.data(), text.size());
    return false;
  };
  if (error != 0) return note(words[0] + " cannot be run: " + ErrorText(error).c_str() + "\n");
  const auto until = Clock::now() + kLimit;
  int status = 0;
  while (waitpid(pid, &status, WNOHANG) == 0) {
    if (Clock::now() > until) {
      kill(-pid, SIGKILL);
      waitpid(pid, &status, 0);
      return note("this took too long and was ended\n");
    }
    std::this_thread::sleep_for(kPoll);
  }
  return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

/// A directory of this user's, removed with everything in it.
class WorkDirectory {
 public:
  WorkDirectory() {
    std::string name = std::filesystem::temp_directory_path() / "kvox-bugreport.XXXXXX";
    if (mkdtemp(name.data()) == nullptr) {
      throw Failure(kFailed, "cannot make " + name + ": " + ErrorText(errno).c_str() +
                                 "; set TMPDIR to a directory with room");
    }
    path_ = name;
  }
  ~WorkDirectory() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  const std::filesystem::path& path() const { return path_; }

 private:
  std::filesystem::path path_;
};

std::string DefaultName() {
  const time_t now = time(nullptr);
  tm parts{};
  localtime_r(&now, &parts);
  char name[64];
  strftime(name, sizeof name, "kvox-bugreport-%Y%m%d-%H%M%S.tar.gz", &parts);
  return name;
}

/// Copies of the log and of the one before.
void AddFlightLogs(const std::filesystem::path& directory, std::string& contents) {
  const auto path = FindFlight();
  if (!path) return;
  const std::filesystem::path previous =
      std::filesystem::path(*path).parent_path() / flight::kPreviousFileName;
  for (const auto& [log, what] : {std::pair(std::filesystem::path(*path), "the flight log"),
                                  std::pair(previous, "that of the run before")}) {
    if (!std::filesystem::exists(log)) continue;
    const std::string copy = directory / log.filename();
    const bool saved = RunInto(directory / (log.filename().string() + ".txt"),
                               {kSelf, "flight", "save", copy, "--flight", log});
    contents +=
        log.filename().string() + (saved ? ": " : ".txt: why there is no copy of ") + what + "\n";
  }
}

}  // namespace

int BugReport(const Context& context) {
  const std::string file = context.in.Has("FILE") ? context.in.Get("FILE") : DefaultName();
  const WorkDirectory work;
  CreateNew(file);
  const std::filesystem::path directory = work.path() / "kvox-bugreport";
  std::filesystem::create_directory(directory);
  std::string contents = "Report of kvoxctl " KVOX_VERSION ". It contains no audio.\n\n";
  for (const Part& part : Parts()) {
    RunInto(directory / part.file, part.words);
    contents += std::string(part.file) + ": " + part.what + "\n";
  }
  AddFlightLogs(directory, contents);
  const UniqueFd readme = CreateNew(directory / "README.txt");
  WriteAll(readme.get(), contents.data(), contents.size());
  if (!RunInto(work.path() / "tar.txt", {"tar", "-C", work.path(), "-czSf",
                                         std::filesystem::absolute(file), "kvox-bugreport"})) {
    unlink(file.c_str());
    const auto told = ReadFile(work.path() / "tar.txt", kMostTold);
    throw Failure(kFailed, "cannot write " + file + ": " + std::string(told.begin(), told.end()) +
                               "name another file, or free some room");
  }
  context.out.One({file + " has been written. It contains:", contents},
                  {{"file", file}, {"bytes", std::filesystem::file_size(file)}});
  return kDone;
}

}  // namespace kvox::client
