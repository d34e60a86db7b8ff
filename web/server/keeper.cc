#include "web/server/keeper.h"

#include <time.h>

#include <algorithm>
#include <cctype>
#include <fstream>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "client/audio/recording.h"
#include "kvox/common/fixed_text.h"
#include "web/server/commands.h"

namespace kvox::web {
namespace {

namespace fs = std::filesystem;
using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr seconds kAfter{2};
constexpr seconds kQuiet{30};        // after a rule held
constexpr size_t kMostFolders = 20;  // that rules have made
constexpr size_t kMostListed = 200;
constexpr milliseconds kLongestCommand{20'000};
constexpr char kReport[] = "report.json";
constexpr size_t kTimeLength = std::string_view("2026-11-23T16.02.11.480").size();
constexpr int kMostWaiting = 2;  // folders to be written

uint64_t NowNs(clockid_t clock) {
  timespec now{};
  clock_gettime(clock, &now);
  return static_cast<uint64_t>(now.tv_sec) * 1'000'000'000 + static_cast<uint64_t>(now.tv_nsec);
}

uint64_t WallMs(uint64_t arrived_ns) {
  const uint64_t ago_ns = NowNs(CLOCK_MONOTONIC_RAW) - arrived_ns;
  return (NowNs(CLOCK_REALTIME) - ago_ns) / 1'000'000;
}

/// "2026-11-23T16.02.11.480-loss": sorts by time, and is a name anywhere.
std::string FolderName(const std::string& reason) {
  const uint64_t now_ms = NowNs(CLOCK_REALTIME) / 1'000'000;
  const auto now_s = static_cast<time_t>(now_ms / 1000);
  tm parts{};
  localtime_r(&now_s, &parts);
  std::array<char, 32> text;
  strftime(text.data(), text.size(), "%Y-%m-%dT%H.%M.%S", &parts);
  return text.data() + FormatText<16>(".%03u-", static_cast<unsigned>(now_ms % 1000)) + reason;
}

bool IsPlainName(const std::string& name) {
  return !name.empty() && name[0] != '.' && name.find('/') == name.npos &&
         name.find('\0') == name.npos;
}

std::string FileNameOf(const std::string& point) {
  std::string name = point;
  std::ranges::replace_if(
      name, [](unsigned char c) { return std::isalnum(c) == 0 && c != '.' && c != ':'; }, '_');
  if (name[0] == '.') name[0] = '_';
  return name + ".wav";
}

void WriteText(const fs::path& path, const std::string& text) {
  std::ofstream file(path, std::ios::binary);
  file << text << '\n';
  file.close();
  if (!file) throw std::runtime_error(path.string() + " cannot be written; is the disk full?");
}

std::string TextOf(const Json& json) {
  return json.dump(1, ' ', false, Json::error_handler_t::replace);
}

/// The complete folders of ours, newest first.
std::vector<fs::path> PathsIn(const fs::path& directory) {
  std::vector<fs::path> paths;
  std::error_code error;
  for (fs::directory_iterator at(directory, error), end; !error && at != end; at.increment(error)) {
    const std::string name = at->path().filename();
    const bool is_ours = name.size() > kTimeLength && name[4] == '-' && name[10] == 'T';
    if (is_ours && is_regular_file(at->path() / kReport, error)) paths.push_back(at->path());
    error.clear();
  }
  std::ranges::sort(paths, std::greater());
  return paths;
}

/// What lists show of each complete folder, newest first.
Json FoldersIn(const fs::path& directory) {
  Json folders = Json::array();
  for (const fs::path& path : PathsIn(directory)) {
    if (folders.size() == kMostListed) break;
    std::ifstream file(path / kReport);
    std::string text(std::istreambuf_iterator<char>(file), {});
    const Json report = Json::parse(text, nullptr, false);
    if (!report.is_object()) continue;
    Json folder = {{"name", path.filename().string()}};
    for (const char* key : {"kept_ms", "reason"}) folder[key] = report.value(key, Json());
    folders.push_back(std::move(folder));
  }
  return folders;
}

/// The blocks from the last change of format on, as a file.
Json WriteAudio(const fs::path& folder, const std::string& point,
                const std::vector<Heard>& blocks) {
  const auto& format = blocks.back().block->format;
  auto first = blocks.end();
  while (first != blocks.begin() && std::prev(first)->block->format == format) --first;
  const std::string name = FileNameOf(point);
  client::Recording recording({.path = folder / name, .points = {point}}, 0);
  for (auto heard = first; heard != blocks.end(); ++heard) {
    client::Block block = *heard->block;
    if (heard == first) block.missing = 0;
    recording.track().Add(0, std::move(block));
    if (recording.track().ready() >= client::Recording::kFramesAtOnce) recording.Write();
  }
  recording.track().End(0);
  recording.Write();
  recording.Close();
  Json json = recording.ToJson();
  json["file"] = name;
  json["begin_ms"] = WallMs(first->block->arrived_ns);
  return json;
}

}  // namespace

Keeper::Keeper(Options options, std::function<Json()> log, std::function<void()> on_change,
               const std::atomic<bool>& ending)
    : options_(std::move(options)),
      log_(std::move(log)),
      on_change_(std::move(on_change)),
      ending_(ending),
      rules_(options_.rules),
      writing_(1) {
  writing_.Add([this] { Changed(nullptr); });
}

void Keeper::SetRules(const Rules& rules) {
  {
    const MutexLock lock(mutex_);
    rules_.clear();
    for (const std::string_view rule : kRules) {
      if (rules.contains(std::string(rule))) rules_.emplace(rule);
    }
    ++version_;
  }
  on_change_();
}

/// The first of the rules that holds; "" for none. What is new is counted from now on.
std::string Keeper::ReasonOf(const Watchers& watchers, bool restarted) {
  bool lost = false;
  bool clipped = false;
  std::map<std::string, Seen> now;
  for (const auto& watcher : watchers) {
    const Levels levels = watcher->levels();
    Seen& seen = now[watcher->point()];
    seen.missing = levels.missing;
    for (const client::Level& level : levels.channels) seen.clipped += level.clipped;
    const Seen& before = seen_[watcher->point()];
    lost = lost || seen.missing > before.missing;
    clipped = clipped || seen.clipped > before.clipped;
  }
  seen_ = std::move(now);
  if (restarted && rules_.contains("restart")) return "restart";
  if (lost && rules_.contains("loss")) return "loss";
  if (clipped && rules_.contains("clip")) return "clip";
  return "";
}

void Keeper::Look(const Watchers& watchers, bool restarted, Clock::time_point now) {
  std::string reason;
  {
    const MutexLock lock(mutex_);
    const std::string found = ReasonOf(watchers, restarted);
    if (pending_.empty() && !found.empty() && now >= quiet_until_) {
      pending_ = found;
      due_ = now + kAfter;
    }
    if (pending_.empty() || now < due_) return;
    reason = std::exchange(pending_, "");
    quiet_until_ = now + kQuiet;
  }
  Keep(watchers, reason);
}

void Keeper::Keep(const Watchers& watchers, const std::string& reason) {
  {
    const MutexLock lock(mutex_);
    if (waiting_ >= kMostWaiting) return;  // they have the same audio
    ++waiting_;
  }
  std::vector<Audio> audio;
  for (const auto& watcher : watchers) {
    auto blocks = watcher->After(0, SIZE_MAX);
    if (!blocks.empty()) audio.push_back({watcher->point(), std::move(blocks)});
  }
  writing_.Add(
      [this, audio = std::move(audio), log = log_(), reason] { Write(audio, log, reason); });
}

void Keeper::Write(const std::vector<Audio>& audio, const Json& log, const std::string& reason) {
  const std::string name = FolderName(reason);
  const fs::path part = options_.directory / ("." + name);
  try {
    fs::create_directories(part);
    fs::permissions(part, fs::perms::owner_all);  // it is somebody's voice
    Json report = {
        {"schema", 1}, {"kept_ms", NowNs(CLOCK_REALTIME) / 1'000'000}, {"reason", reason}};
    report.update(WriteParts(part, audio));
    WriteText(part / "log.json", TextOf({{"entries", log}}));
    WriteText(part / kReport, TextOf(report));
    fs::rename(part, options_.directory / name);
    RemoveOldest();
    Changed(nullptr);
  } catch (const std::exception& error) {
    std::error_code ignored;
    fs::remove_all(part, ignored);
    Changed(error.what());
  }
}

/// A part that cannot be had is named, and does not cost the others.
Json Keeper::WriteParts(const fs::path& folder, const std::vector<Audio>& audio) const {
  Json files = Json::array();
  Json errors = Json::array();
  for (const auto& [point, blocks] : audio) {
    try {
      files.push_back(WriteAudio(folder, point, blocks));
    } catch (const std::exception& error) {
      errors.push_back(point + ": " + error.what());
    }
  }
  const auto run = [&](const std::vector<std::string>& words) {
    std::vector<std::string> arguments = {"--json", "--timeout", "5"};
    arguments.insert(arguments.end(), words.begin(), words.end());
    try {
      const Ran ran = RunProgram(options_.client, arguments, "", kLongestCommand, ending_);
      Json out = Json::parse(ran.out, nullptr, false);
      if (out.is_object()) return out;
      errors.push_back("kvoxctl " + words.front() + ": " + ran.err);
    } catch (const std::exception& error) {
      errors.push_back(error.what());
    }
    return Json::object();
  };
  const std::string flight = folder / "flight";
  run({"flight", "save", flight});
  Json graph = Json::object();
  for (const char* object : {"tap", "buffer", "processor"}) graph.update(run({object, "list"}));
  WriteText(folder / "graph.json", TextOf(graph));
  WriteText(folder / "why.json", TextOf(run({"why", "--flight", flight, "--last", "60"})));
  return {{"files", files}, {"errors", errors}};
}

/// Of those that rules have made.
void Keeper::RemoveOldest() const {
  std::vector<fs::path> folders = PathsIn(options_.directory);
  std::erase_if(folders, [](const fs::path& path) {
    const std::string reason = path.filename().string().substr(kTimeLength + 1);
    return std::ranges::find(kRules, reason) == kRules.end();
  });
  for (size_t i = kMostFolders; i < folders.size(); ++i) fs::remove_all(folders[i]);
}

void Keeper::Changed(Json error) {
  Json folders = FoldersIn(options_.directory);
  {
    const MutexLock lock(mutex_);
    waiting_ -= waiting_ > 0 ? 1 : 0;
    folders_ = std::move(folders);
    error_ = std::move(error);
    ++version_;
  }
  on_change_();
}

uint64_t Keeper::version() const {
  const MutexLock lock(mutex_);
  return version_;
}

Json Keeper::Status() const {
  const MutexLock lock(mutex_);
  return {{"directory", options_.directory.string()},
          {"rules", rules_},
          {"folders", folders_},
          {"error", error_}};
}

std::optional<std::string> Keeper::FileOf(const std::string& folder,
                                          const std::string& file) const {
  if (!IsPlainName(folder) || !IsPlainName(file)) return std::nullopt;
  return (options_.directory / folder / file).string();
}

}  // namespace kvox::web
