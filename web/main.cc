// kvoxweb: shows the audio graph in a browser, and lets it be heard. docs/web.md is its manual.

#include <fcntl.h>
#include <pwd.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "kvox/common/log.h"
#include "kvox/common/unique_fd.h"
#include "web/server/access.h"
#include "web/server/server.h"

namespace kvox {

LogTarget& SystemLog() {
  class StandardError : public LogTarget {
   public:
    void Write(LogPriority priority, const char*, const char* line) override {
      if (priority != LogPriority::kInfo) fprintf(stderr, "kvoxweb: %s\n", line);
    }
  };
  static StandardError log;
  return log;
}

}  // namespace kvox

namespace {

using namespace kvox::web;

constexpr int kSignals[] = {SIGINT, SIGTERM, SIGHUP};

Server* running = nullptr;

void OnSignal(int) {
  running->Stop();
}

/// The program beside this one, where there is one.
std::string Beside(const char* name) {
  std::error_code error;
  const auto self = std::filesystem::read_symlink("/proc/self/exe", error);
  const auto path = self.parent_path() / name;
  return !error && exists(path, error) ? path.string() : name;
}

/// "ADDRESS:PORT", "PORT" or the path of a Unix socket; a page at another address is reached by it.
/// Throws CLI::ValidationError.
void ReadListen(const std::string& text, Listen& listen) {
  if (text.find('/') != text.npos) {
    listen.address = text;
    listen.is_path = true;
    return;
  }
  const size_t colon = text.rfind(':');
  if (colon != text.npos) listen.address = text.substr(0, colon);
  const std::string port = colon == text.npos ? text : text.substr(colon + 1);
  char* end = nullptr;
  const long number = std::strtol(port.c_str(), &end, 10);
  if (port.empty() || *end != '\0' || number < 0 || number > 65535 || listen.address.empty()) {
    throw CLI::ValidationError("--listen", text + ": expected PORT, ADDRESS:PORT or a path");
  }
  listen.port = static_cast<int>(number);
  const bool is_any = listen.address == "0.0.0.0" || listen.address == "[::]";
  if (is_any && listen.hosts.empty()) {
    throw CLI::ValidationError("--listen", text + ": say with --host by which name it is reached");
  }
  if (!is_any) listen.hosts.insert(listen.hosts.begin(), listen.address);
  if (listen.address.front() == '[') {
    listen.address = listen.address.substr(1, listen.address.find(']') - 1);
  }
}

/// Of this user, for libwebsockets.
std::string OwnerOf(const std::string& group) {
  const passwd* const user = getpwuid(geteuid());
  return (user != nullptr ? user->pw_name : std::to_string(geteuid())) + ":" + group;
}

std::string ReadToken(const std::string& path) {
  std::ifstream file(path);
  std::string token;
  constexpr char kPlain[] = "0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ-_";
  file >> token;
  if (token.size() >= 16 && token.find_first_not_of(kPlain) == token.npos) return token;
  throw std::runtime_error(path + ": a token is expected, 16 letters, digits, - or _ at least");
}

/// Where the flight recorder keeps what it is not told to keep elsewhere.
std::string DefaultKept() {
  const char* const state = getenv("XDG_STATE_HOME");
  if (state != nullptr && state[0] == '/') return std::string(state) + "/kvox";
  const char* const home = getenv("HOME");
  return home != nullptr ? std::string(home) + "/.local/state/kvox" : "/var/tmp/kvox";
}

/// Opens the page in the desktop's browser. The link is in a file that only this user can read:
/// other users see the arguments of programs.
void OpenPage(const std::string& link) {
  const char* const runtime = getenv("XDG_RUNTIME_DIR");
  std::string path = std::string(runtime != nullptr ? runtime : "/tmp") + "/kvoxweb-XXXXXX.html";
  const kvox::UniqueFd file(mkostemps(path.data(), 5, O_CLOEXEC));
  const std::string text = "<meta http-equiv=refresh content='0;url=" + link + "'>\n";
  if (!file.valid() ||
      write(file.get(), text.data(), text.size()) != static_cast<ssize_t>(text.size())) {
    return;
  }
  const pid_t child = fork();
  if (child == 0) {
    if (fork() == 0) execlp("xdg-open", "xdg-open", path.c_str(), nullptr);
    _exit(1);  // init takes care of the other
  }
  waitpid(child, nullptr, 0);
}

void Announce(const Listen& listen, int port, const std::string& token, bool open) {
  if (listen.is_path) {
    printf("kvoxweb serves %s, with the token %s\n", listen.address.c_str(), token.c_str());
    fflush(stdout);
    return;
  }
  const std::string link =
      "http://" + listen.hosts.front() + ":" + std::to_string(port) + "/#token=" + token;
  printf("%s\n", link.c_str());
  fflush(stdout);
  if (!listen.address.starts_with("127.") && listen.address != "localhost" &&
      listen.address != "::1") {
    fprintf(
        stderr,
        "kvoxweb: warning: others reach %s, and what they send is not encrypted; use ssh -L, or "
        "a reverse proxy\n",
        listen.address.c_str());
  }
  const bool desktop = getenv("DISPLAY") != nullptr || getenv("WAYLAND_DISPLAY") != nullptr;
  if (open && desktop && isatty(STDOUT_FILENO) == 1) OpenPage(link);
}

int Serve(const Listen& listen, const Hub::Options& options, bool open) {
  Server server(listen, options);
  running = &server;
  for (const int number : kSignals) signal(number, OnSignal);
  Announce(listen, server.port(), options.token, open);
  server.Run();
  for (const int number : kSignals) signal(number, SIG_DFL);  // the second one ends it at once
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  signal(SIGPIPE, SIG_IGN);
  CLI::App app("Shows the audio graph in a browser, and lets it be heard.");
  std::string listen_text = "127.0.0.1:8490";
  std::string token_file;
  bool no_open = false;
  Listen listen{.files = KVOX_PAGE_DIRECTORY};
  std::string group;
  Hub::Options options{.client = Beside("kvoxctl"), .kept = DefaultKept()};
  app.set_version_flag("--version", "kvoxweb " KVOX_VERSION);
  app.add_option("--listen", listen_text, "Where to listen: PORT, ADDRESS:PORT, or a path");
  app.add_option("--socket-group", group, "Whose members may connect to the Unix socket");
  app.add_option("--host", listen.hosts,
                 "A name that the page may be reached by, besides localhost");
  app.add_option("--token-file", token_file, "Take the token from this file (a new one each time)");
  app.add_flag("--read-only", options.read_only, "Let pages look and listen, but change nothing");
  app.add_option("--keep", options.keep_s, "Seconds of audio to keep of each point")
      ->check(CLI::Range(1, 300));
  app.add_option("--keep-in", options.kept, "Directory for what the flight recorder keeps");
  app.add_option("--keep-at", options.rules, "Keep by itself at loss, clip, restart")
      ->delimiter(',')
      ->check(CLI::IsMember({"loss", "clip", "restart"}));
  app.add_flag("--no-open", no_open, "Do not open the page in a browser");
  app.add_option("--files", listen.files, "Directory of the page");
  try {
    app.parse(argc, argv);
    options.token = token_file.empty() ? MakeToken() : ReadToken(token_file);
    ReadListen(listen_text, listen);
    if (!group.empty()) listen.owner = OwnerOf(group);
    return Serve(listen, options, !no_open);
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? 0 : 2;
  } catch (const std::exception& error) {
    fprintf(stderr, "kvoxweb: %s\n", error.what());
    return 1;
  }
}
