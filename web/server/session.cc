#include "web/server/session.h"

#include <algorithm>
#include <cmath>
#include <utility>

#include "libkvox/errors.h"
#include "web/server/access.h"
#include "web/server/commands.h"
#include "web/server/wire.h"

namespace kvox::web {
namespace {

using std::chrono::milliseconds;

constexpr size_t kMostCommands = 16;    // of one page, at once
constexpr size_t kLongestToken = 1024;  // a message with it
constexpr size_t kMostTexts = 64;       // that wait to be sent
constexpr milliseconds kLevelsPeriod{33};
constexpr milliseconds kAudioPeriod{15};
constexpr milliseconds kTimingPeriod{100};
constexpr milliseconds kLongestCommand{30'000};
constexpr size_t kAudioBytes = 1024 << 10;  // of one message, for all points
constexpr uint64_t kFarBehind_s = 2;        // the page is too slow

std::string Text(const Json& message) {
  return message.dump(-1, ' ', false, Json::error_handler_t::replace);
}

/// What kvoxctl has said, as a reply.
Json ReplyOf(Ran ran, bool is_text) {
  Json reply = {{"status", ran.status}};
  Json out = is_text ? Json(ran.out) : Json::parse(ran.out, nullptr, false);
  if (!out.is_discarded()) reply["out"] = std::move(out);
  while (ran.err.ends_with('\n')) ran.err.pop_back();
  if (ran.status != 0 || !ran.err.empty()) {
    constexpr std::string_view kName = "kvoxctl: ";
    reply["error"] = ran.err.starts_with(kName) ? ran.err.substr(kName.size()) : ran.err;
  }
  return reply;
}

double Tenths(double number) {
  return std::round(number * 10) / 10;
}

Json LevelsOf(const Levels& levels) {
  Json peak = Json::array();
  Json rms = Json::array();
  Json clipped = Json::array();
  for (const client::Level& level : levels.channels) {
    peak.push_back(Tenths(level.peak_dbfs));
    rms.push_back(Tenths(level.rms_dbfs));
    clipped.push_back(level.clipped);
  }
  return {{"peak", peak},
          {"rms", rms},
          {"clipped", clipped},
          {"missing", levels.missing},
          {"rate", levels.sample_rate}};
}

}  // namespace

void Session::Take(std::string_view text) {
  if (!known_ && text.size() > kLongestToken) throw Refusal("the first message is the token");
  const Request request = ParseRequest(text);
  if (texts_.size() >= kMostTexts) throw Refusal("replies are not read");
  if (known_ == std::holds_alternative<TokenRequest>(request)) {
    throw Refusal("the first message is the token, and no other is");
  }
  std::visit([this](const auto& asked) { Do(asked); }, request);
}

void Session::Do(const TokenRequest& request) {
  if (!IsToken(request.token, hub_.options().token)) {
    throw Refusal("the token is wrong; open the link that kvoxweb has printed");
  }
  known_ = true;
  texts_.push_back(Text({{"event", "hello"}, {"api", 1}, {"read_only", hub_.options().read_only}}));
}

void Session::Do(const RunRequest& request) {
  const Json reply = {{"id", request.id}};
  std::vector<std::string> arguments;
  try {
    arguments = CheckCommand(request.words, hub_.options().read_only);
    if (!request.text) arguments.insert(arguments.begin(), "--json");
    const MutexLock lock(replies_->mutex);
    if (replies_->running + replies_->waiting.size() >= kMostCommands) {
      throw client::Failure(client::kRefused, "this page runs 16 commands already; wait for one");
    }
    if (!hub_.TakePlace()) throw client::Failure(client::kRefused, "kvoxweb is busy; try again");
    ++replies_->running;
  } catch (const client::Failure& failure) {
    Json refused = reply;
    refused.update({{"status", failure.status()}, {"error", failure.what()}});
    texts_.push_back(Text(refused));
    return;
  }
  const std::weak_ptr<Replies> to = replies_;
  hub_.Do([to, reply, arguments, input = request.input, is_text = request.text, &hub = hub_] {
    Json done = reply;
    if (to.expired()) return;  // the page has gone
    try {
      Ran ran = RunProgram(hub.options().client, arguments, input, kLongestCommand, hub.ending());
      done.update(ReplyOf(std::move(ran), is_text));
    } catch (const std::exception& error) {
      done.update({{"status", client::kFailed}, {"error", error.what()}});
    }
    const auto replies = to.lock();
    if (!replies) return;
    const MutexLock lock(replies->mutex);
    replies->waiting.push_back(Text(done));
    --replies->running;
  });
}

void Session::Do(const WatchRequest& request) {
  Json refused = Json::object();
  Select(request.levels, levels_, refused);
  Select(request.audio, audio_, refused);
  std::erase_if(timing_, [&](const auto& timing) {
    return std::ranges::find(request.timing, timing.first) == request.timing.end();
  });
  for (const std::string& stream : request.timing) timing_.try_emplace(stream, stream);
  Json numbers = Json::object();
  for (const auto& [name, listening] : audio_) numbers[name] = listening.watched.number;
  texts_.push_back(Text({{"event", "watching"}, {"audio", numbers}}));
  if (!refused.empty()) {
    texts_.push_back(Text({{"event", "levels"}, {"levels", Json::object()}, {"errors", refused}}));
  }
  errors_.clear();
}

/// Keeps those that were there.
void Session::Select(const std::vector<std::string>& names, Points& points, Json& refused) {
  Points selected;
  for (const std::string& name : names) {
    const auto old = points.find(name);
    if (old != points.end() && !old->second.watched.watcher->over()) {
      selected.insert(*old);
      continue;
    }
    const Watched watched = hub_.Watch(name);
    if (!watched.watcher) {
      refused[name] = "too many points are watched; close a lane, or another page";
      continue;
    }
    selected[name] = {.watched = watched, .told = watched.watcher->last()};
  }
  points = std::move(selected);
}

void Session::Do(const KeepRequest&) {
  if (hub_.options().read_only) throw Refusal("this page is read-only");
  hub_.keeper().Keep(hub_.Watchers(), "asked");
}

void Session::Do(const RulesRequest& request) {
  if (hub_.options().read_only) throw Refusal("this page is read-only");
  hub_.keeper().SetRules({request.rules.begin(), request.rules.end()});
}

std::optional<Message> Session::Next(Clock::time_point now) {
  if (auto text = NextText(now)) return Message{.binary = false, .data = std::move(*text)};
  if (now < audio_due_) return std::nullopt;
  audio_due_ = now + kAudioPeriod;
  std::string audio = NextAudio();
  if (audio.empty()) return std::nullopt;
  return Message{.binary = true, .data = std::move(audio)};
}

std::optional<std::string> Session::NextText(Clock::time_point now) {
  {
    const MutexLock lock(replies_->mutex);
    std::ranges::move(replies_->waiting, std::back_inserter(texts_));
    replies_->waiting.clear();
  }
  if (!texts_.empty()) {
    std::string text = std::move(texts_.front());
    texts_.pop_front();
    return text;
  }
  if (!known_) return std::nullopt;
  if (auto text = NextNews()) return text;
  if (now >= timing_due_ && !timing_.empty()) {
    timing_due_ = now + kTimingPeriod;
    if (auto text = NextTiming()) return text;
  }
  if (now < levels_due_) return std::nullopt;
  levels_due_ = now + kLevelsPeriod;
  return NextLevels();
}

std::optional<std::string> Session::NextNews() {
  const Pulse pulse = hub_.pulse();
  if (pulse.changes != changes_ || pulse.counted != counted_) {
    Json news = {{"event", "pulse"}, {"changes", pulse.changes}, {"daemon", pulse.alive}};
    if (pulse.counted != counted_) news["streams"] = pulse.streams;
    changes_ = pulse.changes;
    counted_ = pulse.counted;
    return Text(news);
  }
  if (pulse.logged != logged_) {
    const uint64_t told = std::exchange(logged_, pulse.logged);
    return Text({{"event", "log"}, {"entries", hub_.flight().LogAfter(told)}});
  }
  if (const uint64_t version = hub_.keeper().version(); version != kept_) {
    kept_ = version;
    Json kept = {{"event", "kept"}};
    kept.update(hub_.keeper().Status());
    return Text(kept);
  }
  return std::nullopt;
}

std::optional<std::string> Session::NextLevels() {
  Json levels = Json::object();
  Json errors = Json::object();
  for (auto* points : {&levels_, &audio_}) {
    for (auto& [name, listening] : *points) {
      const Watcher& watcher = *listening.watched.watcher;
      std::string error = watcher.error();
      if (error != errors_[name]) errors[name] = errors_[name] = std::move(error);
      if (points == &audio_) continue;
      const Levels now = watcher.levels();
      if (now.sequence <= listening.told) continue;
      listening.told = now.sequence;
      levels[name] = LevelsOf(now);
    }
  }
  if (levels.empty() && errors.empty()) return std::nullopt;
  Json message = {{"event", "levels"}, {"levels", levels}, {"skipped", skipped_}};
  if (!errors.empty()) message["errors"] = errors;
  return Text(message);
}

std::optional<std::string> Session::NextTiming() {
  Json packets = Json::object();
  for (auto& [stream, timing] : timing_) {
    Json rows = timing.Read();
    if (!rows.empty()) packets[stream] = std::move(rows);
  }
  if (packets.empty()) return std::nullopt;
  return Text({{"event", "timing"}, {"wall_ms", WallOffsetMs()}, {"packets", packets}});
}

std::string Session::NextAudio() {
  std::string message;
  for (auto& [name, listening] : audio_) {
    const Watcher& watcher = *listening.watched.watcher;
    const uint64_t newest = watcher.Behind(listening.told) > kFarBehind_s ? watcher.last() : 0;
    if (newest > listening.told + 1) {
      skipped_ += newest - listening.told - 1;
      listening.told = newest - 1;
    }
    for (const Heard& heard : watcher.After(listening.told, kAudioBytes / audio_.size())) {
      listening.told = heard.sequence;
      AppendAudio(listening.watched.number, heard, message);
    }
  }
  return message;
}

}  // namespace kvox::web
