#include "web/server/commands.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <string_view>
#include <utility>

#include "kvox/common/unique_fd.h"
#include "libkvox/errors.h"

extern char** environ;

namespace kvox::web {
namespace {

using Clock = std::chrono::steady_clock;

enum class May { kLook, kTry, kChange };  // kTry: with --dry-run it only looks

constexpr struct {
  std::string_view words;
  May may;
} kVerbs[] = {
    {"processor list", May::kLook},
    {"processor types", May::kLook},
    {"processor info", May::kLook},
    {"processor new", May::kChange},
    {"processor delete", May::kChange},
    {"processor enable", May::kChange},
    {"processor disable", May::kChange},
    {"tap list", May::kLook},
    {"tap info", May::kLook},
    {"tap enable", May::kChange},
    {"tap disable", May::kChange},
    {"tap connect", May::kChange},
    {"tap disconnect", May::kChange},
    {"tap block-length", May::kChange},
    {"tap jitter-buffer", May::kChange},
    {"buffer list", May::kLook},
    {"usecase list", May::kLook},
    {"usecase enable", May::kChange},
    {"usecase disable", May::kChange},
    {"param list", May::kLook},
    {"param get", May::kLook},
    {"param set", May::kChange},
    {"io start", May::kChange},
    {"io stop", May::kChange},
    {"capture start", May::kChange},
    {"capture stop", May::kChange},
    {"capture status", May::kLook},
    {"connect", May::kChange},
    {"disconnect", May::kChange},
    {"route", May::kTry},
    {"unroute", May::kTry},
    {"graph", May::kLook},
    {"export", May::kLook},
    {"apply", May::kTry},
    {"why", May::kLook},
    {"doctor", May::kLook},
    {"latency", May::kLook},
    {"ping", May::kLook},
};

constexpr std::string_view kDryRun = "--dry-run";

constexpr struct {
  std::string_view name;
  bool has_value;
} kOptions[] = {{kDryRun, false},  {"--type", true},   {"--last", true},    {"--replace", false},
                {"--keep", false}, {"--check", false}, {"--element", true}, {"--stream", true}};

constexpr size_t kLongestOutput = 8 << 20;
constexpr int kStep_ms = 100;  // between looks at the time

bool IsVerb(std::string_view verb, const std::vector<std::string>& words) {
  if (words.empty()) return false;
  return verb == words[0] || (words.size() > 1 && verb == words[0] + " " + words[1]);
}

bool IsOption(const std::string& word) {
  return word.size() > 1 && word[0] == '-' && (word[1] < '0' || word[1] > '9') && word[1] != '.';
}

/// The words that are neither options nor their values. An option stands alone, and its value is no
/// option: so no word means something else to kvoxctl than here. Throws client::UsageError.
std::vector<std::string> Arguments(const std::vector<std::string>& words) {
  std::vector<std::string> arguments;
  bool is_value = false;
  for (const std::string& word : words) {
    if (word.find('\0') != word.npos) throw client::UsageError("a word has a zero byte");
    if (!IsOption(word)) {
      if (!std::exchange(is_value, false)) arguments.push_back(word);
      continue;
    }
    const auto* const option =
        std::ranges::find_if(kOptions, [&](const auto& row) { return row.name == word; });
    if (is_value || option == std::end(kOptions)) {
      throw client::UsageError(word + ": no option of the page; docs/web-api.md has the list");
    }
    is_value = option->has_value;
  }
  return arguments;
}

/// Descriptors of a pipe that no program inherits.
struct Pipe {
  Pipe() {
    std::array<int, 2> fds;
    if (pipe2(fds.data(), O_CLOEXEC) != 0) {
      throw std::runtime_error(std::string("no pipe: ") + std::strerror(errno));
    }
    read = UniqueFd(fds[0]);
    write = UniqueFd(fds[1]);
  }
  UniqueFd read;
  UniqueFd write;
};

class Files {
 public:
  Files() { posix_spawn_file_actions_init(&actions_); }
  ~Files() { posix_spawn_file_actions_destroy(&actions_); }
  Files(const Files&) = delete;
  Files& operator=(const Files&) = delete;

  void Put(const UniqueFd& fd, int at) {
    posix_spawn_file_actions_adddup2(&actions_, fd.get(), at);
  }
  const posix_spawn_file_actions_t* get() const { return &actions_; }

 private:
  posix_spawn_file_actions_t actions_;
};

/// Adds what can be read. False at the end.
bool ReadSome(int fd, std::string& text) {
  std::array<char, 16384> bytes;
  const ssize_t got = read(fd, bytes.data(), bytes.size());
  if (got < 0) return errno == EINTR || errno == EAGAIN;
  text.append(bytes.data(), static_cast<size_t>(got));
  return got > 0;
}

/// Until both ends of the program's output are closed. False when it has to be ended before that.
bool Exchange(Pipe& in, Pipe& out, Pipe& err, std::string_view input, Clock::time_point deadline,
              const std::atomic<bool>& ending, Ran& ran) {
  fcntl(in.write.get(), F_SETFL, O_NONBLOCK);
  std::array<pollfd, 3> ends = {{{.fd = out.read.get(), .events = POLLIN, .revents = 0},
                                 {.fd = err.read.get(), .events = POLLIN, .revents = 0},
                                 {.fd = in.write.get(), .events = POLLOUT, .revents = 0}}};
  while (ends[0].fd >= 0 || ends[1].fd >= 0) {
    if (input.empty() && ends[2].fd >= 0) {
      in.write = UniqueFd();
      ends[2].fd = -1;
    }
    if (Clock::now() >= deadline || ending) return false;
    if (std::max(ran.out.size(), ran.err.size()) > kLongestOutput) return false;
    if (poll(ends.data(), ends.size(), kStep_ms) <= 0) continue;
    if (ends[0].revents != 0 && !ReadSome(ends[0].fd, ran.out)) ends[0].fd = -1;
    if (ends[1].revents != 0 && !ReadSome(ends[1].fd, ran.err)) ends[1].fd = -1;
    if (ends[2].fd < 0 || ends[2].revents == 0) continue;
    const ssize_t sent = write(ends[2].fd, input.data(), input.size());
    input.remove_prefix(sent > 0 ? static_cast<size_t>(sent) : 0);
    if (sent < 0 && errno != EINTR && errno != EAGAIN) input = {};  // it does not want it
  }
  return true;
}

}  // namespace

std::vector<std::string> CheckCommand(const std::vector<std::string>& words, bool read_only) {
  const auto* const verb =
      std::ranges::find_if(kVerbs, [&](const auto& row) { return IsVerb(row.words, words); });
  if (verb == std::end(kVerbs)) {
    throw client::UsageError((words.empty() ? "" : words.front()) +
                             ": no verb of the page; docs/web-api.md has the list");
  }
  const std::vector<std::string> plain = Arguments(words);
  const bool tries = verb->may == May::kTry && std::ranges::find(words, kDryRun) != words.end();
  if (verb->may != May::kLook && read_only && !tries) {
    throw client::UsageError(std::string(verb->words) +
                             ": this page is read-only; start kvoxweb without --read-only");
  }
  // Of this machine's files, a page reads none.
  if (verb->words == "apply" && plain != std::vector<std::string>{"apply", "-"}) {
    throw client::UsageError("apply: expected -, with the file as input");
  }
  std::vector<std::string> arguments = {"--timeout", "20"};
  arguments.insert(arguments.end(), words.begin(), words.end());
  return arguments;
}

Ran RunProgram(const std::string& program, const std::vector<std::string>& arguments,
               const std::string& input, std::chrono::milliseconds wait,
               const std::atomic<bool>& ending) {
  Pipe in;
  Pipe out;
  Pipe err;
  Files files;
  files.Put(in.read, STDIN_FILENO);
  files.Put(out.write, STDOUT_FILENO);
  files.Put(err.write, STDERR_FILENO);
  std::vector<char*> argv = {const_cast<char*>(program.c_str())};
  for (const std::string& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
  argv.push_back(nullptr);
  pid_t pid = -1;
  if (const int error = posix_spawnp(&pid, argv[0], files.get(), nullptr, argv.data(), environ)) {
    throw std::runtime_error(program + " cannot be started (" + std::strerror(error) +
                             "); install it, or put it beside kvoxweb");
  }
  in.read = UniqueFd();
  out.write = UniqueFd();
  err.write = UniqueFd();
  Ran ran;
  if (!Exchange(in, out, err, input, Clock::now() + wait, ending, ran)) {
    kill(pid, SIGKILL);
    ran.err += "it took too long, or said too much; try again";
  }
  int status = 0;
  while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  ran.status = WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
  return ran;
}

}  // namespace kvox::web
