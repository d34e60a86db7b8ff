#include "sim/recording/recorder.h"

#include <fmt/format.h>
#include <pthread.h>
#include <signal.h>
#include <sys/inotify.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <map>
#include <memory>
#include <set>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "kvox/common/device_names.h"
#include "kvox/common/kvox_utils.h"
#include "kvox/common/unique_fd.h"
#include "sim/event.h"
#include "sim/output.h"
#include "sim/recording/node_relay.h"

namespace kvox::sim {
namespace {

constexpr uint64_t kRetryNs = 200'000'000;  // of a node that could not be mirrored
constexpr mode_t kRights = 07777;

/// In the order of creation: a daemon that sees a device arrive sends commands at once.
constexpr std::array kOrder = {LinkType::kOther, LinkType::kControl, LinkType::kInject,
                               LinkType::kTapOut};

/// None for what is no node.
std::optional<size_t> OrderOf(const std::string& name) {
  const auto type = LinkTypeOf(name);
  if (!type) return std::nullopt;
  return static_cast<size_t>(std::ranges::find(kOrder, *type) - kOrder.begin());
}

class Recorder {
 public:
  explicit Recorder(const RecordOptions& options);

  int Run();

 private:
  struct Node {
    mode_t rights = 0;
    int watch = -1;  // of the daemon's opens
    std::unique_ptr<NodeRelay> relay;
  };

  bool WatchNodes();
  void OnInotify();
  void Look();
  bool Add(const std::string& name);
  void Remove(const std::string& name);
  void Mirror(const std::string& name, Node& node);

  const RecordOptions options_;
  const EventBase base_;
  DeviceDirectory to_;
  RecordingFile file_;
  UniqueFd inotify_;
  const NodeRelay::Context context_;
  std::map<std::string, Node> nodes_;
  std::set<std::string> gone_;     // another one may be there already
  std::set<std::string> hung_up_;  // the node may stay for a while
  std::set<std::string> refused_;  // nodes whose problem has been told
  std::vector<std::unique_ptr<Event>> events_;
  Event look_;
};

Recorder::Recorder(const RecordOptions& options)
    : options_(options),
      base_(NewEventBase()),
      to_(options.to),
      file_(options.recording),
      inotify_(inotify_init1(IN_NONBLOCK | IN_CLOEXEC)),
      context_{.base = base_.get(),
               .from = options.from,
               .to = to_,
               .file = file_,
               .audio = options.recording.audio,
               .on_end =
                   [this](const std::string& name) {
                     hung_up_.insert(name);
                     look_.AddIn(0);
                   }},
      look_(base_.get(), -1, 0, [this] { Look(); }) {
  const auto end = [this] { event_base_loopexit(base_.get(), nullptr); };
  for (const int number : {SIGINT, SIGTERM, SIGHUP}) {
    events_.push_back(std::make_unique<Event>(base_.get(), number, EV_SIGNAL | EV_PERSIST, end));
    events_.back()->Add();
  }
  if (options.seconds > 0) {
    events_.push_back(std::make_unique<Event>(base_.get(), -1, 0, end));
    events_.back()->AddIn(static_cast<uint64_t>(options.seconds * 1e9));
  }
  events_.push_back(std::make_unique<Event>(base_.get(), inotify_.get(), EV_READ | EV_PERSIST,
                                            [this] { OnInotify(); }));
  events_.back()->Add();
  Look();
}

/// False when it is not there.
bool Recorder::WatchNodes() {
  constexpr uint32_t kChanges = IN_CREATE | IN_DELETE | IN_MOVED_TO | IN_MOVED_FROM | IN_ATTRIB |
                                IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR;
  return inotify_add_watch(inotify_.get(), options_.from.c_str(), kChanges) >= 0;
}

/// As the daemon's I/O threads: what passes does not wait for others. Not every user may.
void RaisePriority() {
  const sched_param priority{.sched_priority = RealtimePriority()};
  pthread_setschedparam(pthread_self(), SCHED_FIFO, &priority);
}

int Recorder::Run() {
  RaisePriority();
  event_base_dispatch(base_.get());
  while (!nodes_.empty()) Remove(std::string(nodes_.rbegin()->first));
  if (const uint64_t dropped = file_.dropped()) {
    Print(stderr,
          "kvosim: {} records are missing: the disk is too slow; use --no-audio, or another "
          "disk\n",
          dropped);
  }
  return file_.failed() || file_.dropped() > 0 ? 1 : 0;
}

void Recorder::OnInotify() {
  alignas(inotify_event) std::array<char, 16384> bytes;
  const ssize_t size = read(inotify_.get(), bytes.data(), bytes.size());
  bool changed = false;
  for (ssize_t at = 0; at < size;) {
    const auto* const found =
        reinterpret_cast<const inotify_event*>(&bytes[static_cast<size_t>(at)]);
    at += static_cast<ssize_t>(sizeof *found + found->len);
    constexpr uint32_t kOthers = IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO;
    if (found->len > 0 && (found->mask & kOthers) != 0) gone_.insert(found->name);
    const bool overflow = (found->mask & IN_Q_OVERFLOW) != 0;
    bool of_a_node = false;
    for (auto& [name, node] : nodes_) {
      of_a_node = of_a_node || node.watch == found->wd;
      if (overflow || node.watch == found->wd) node.relay->OnDaemon();
    }
    changed = changed || !of_a_node;
  }
  if (changed) Look();
}

/// Makes what is there what the co-processor has.
void Recorder::Look() {
  const std::set<std::string> hung_up = std::exchange(hung_up_, {});
  for (const auto& [name, node] : nodes_) {
    struct stat status {};
    if (lstat((options_.from / name).c_str(), &status) != 0) gone_.insert(name);
  }
  for (const std::string& name : std::exchange(gone_, {})) Remove(name);
  for (const std::string& name : hung_up) Remove(name);
  for (auto& [name, node] : nodes_) Mirror(name, node);
  std::set<std::pair<size_t, std::string>> found;
  std::error_code error;
  for (const auto& entry : std::filesystem::directory_iterator(options_.from, error)) {
    const std::string name = entry.path().filename();
    const auto order = OrderOf(name);
    if (order && !nodes_.contains(name)) found.emplace(*order, name);
  }
  bool again = !hung_up.empty() || !WatchNodes();
  for (const auto& [order, name] : found) again = (!hung_up.contains(name) && !Add(name)) || again;
  if (again) look_.AddIn(kRetryNs);
}

bool Recorder::Add(const std::string& name) {
  try {
    Node node{.relay = MakeRelay(context_, name)};
    node.watch = inotify_add_watch(inotify_.get(), to_.PathOf(name).c_str(), IN_OPEN);
    if (node.watch < 0) {
      throw std::runtime_error(fmt::format("{}: cannot be watched ({}); its node is not mirrored",
                                           to_.PathOf(name).string(), std::strerror(errno)));
    }
    file_.Add({.node = name, .event = NodeEvent::kArrived});
    Node& added = nodes_[name] = std::move(node);
    Mirror(name, added);
    added.relay->OnDaemon();
    refused_.erase(name);
    return true;
  } catch (const std::runtime_error& problem) {
    to_.Remove(name);
    if (refused_.insert(name).second) Print(stderr, "kvosim: {}\n", problem.what());
    return false;
  }
}

void Recorder::Remove(const std::string& name) {
  const auto node = nodes_.find(name);
  if (node == nodes_.end()) return;
  to_.Remove(name);
  file_.Add({.node = name, .event = NodeEvent::kLeft});
  nodes_.erase(node);  // which hangs up
}

/// The node's permission bits: a daemon that may not open it yet tries again.
void Recorder::Mirror(const std::string& name, Node& node) {
  struct stat status {};
  if (stat((options_.from / name).c_str(), &status) != 0) return;
  const mode_t rights = status.st_mode & kRights;
  if (rights == node.rights) return;
  node.rights = rights;
  // What the relay itself needs of a FIFO.
  const auto type = LinkTypeOf(name);
  const mode_t own = type == LinkType::kTapOut ? S_IWUSR : type == LinkType::kInject ? S_IRUSR : 0;
  chmod(to_.PathOf(name).c_str(), rights | own);
  file_.Add({.node = name, .event = NodeEvent::kRights, .number = rights});
}

}  // namespace

int Record(const RecordOptions& options) {
  for (const int number : {SIGPIPE, SIGXFSZ}) signal(number, SIG_IGN);
  std::error_code error;
  if (!is_directory(options.from, error)) {
    throw std::runtime_error(
        fmt::format("--from {}: is no directory; expected that of a co-processor's nodes",
                    options.from.string()));
  }
  create_directories(options.to, error);
  if (!is_directory(options.to)) {
    throw std::runtime_error(fmt::format("--to {}: is no directory, and cannot be made ({})",
                                         options.to.string(), error.message()));
  }
  if (equivalent(options.from, options.to, error)) {
    throw std::runtime_error("--from and --to are one directory; expected two");
  }
  return Recorder(options).Run();
}

}  // namespace kvox::sim
