#include "web/server/request.h"

#include <nlohmann/json.hpp>

namespace kvox::web {
namespace {

// Not one that keeps the order: it would compare each key with all others.
using Parsed = nlohmann::json;

constexpr size_t kMostPoints = 64;
constexpr size_t kMostWords = 64;
constexpr size_t kMostRules = 8;
constexpr size_t kLongestWord = 1024;

/// A list of short strings; none where the key is missing.
std::vector<std::string> Strings(const Parsed& object, const char* key, size_t most) {
  std::vector<std::string> strings;
  const auto list = object.find(key);
  if (list == object.end()) return strings;
  if (!list->is_array() || list->size() > most) {
    throw Refusal(std::string(key) + ": a list of strings is expected, and no long one");
  }
  for (const Parsed& item : *list) {
    if (!item.is_string() || item.get_ref<const std::string&>().size() > kLongestWord) {
      throw Refusal(std::string(key) + ": a list of short strings is expected");
    }
    strings.push_back(item.get<std::string>());
  }
  return strings;
}

std::string String(const Parsed& object, const char* key) {
  const auto text = object.find(key);
  if (text == object.end()) return "";
  if (!text->is_string()) throw Refusal(std::string(key) + ": a string is expected");
  return text->get<std::string>();
}

Request ParseRun(const Parsed& message) {
  const auto id = message.find("id");
  if (id == message.end() || !id->is_number_integer()) throw Refusal("run: there is no id");
  return RunRequest{.id = id->get<int64_t>(),
                    .words = Strings(message, "run", kMostWords),
                    .input = String(message, "input"),
                    .text = message.value("text", Parsed()) == true};
}

Request ParseWatch(const Parsed& message) {
  const Parsed& watch = message["watch"];
  if (!watch.is_object()) throw Refusal("watch: an object is expected");
  return WatchRequest{.levels = Strings(watch, "levels", kMostPoints),
                      .audio = Strings(watch, "audio", kMostPoints),
                      .timing = Strings(watch, "timing", kMostPoints)};
}

constexpr struct {
  const char* key;
  Request (*parse)(const Parsed& message);
} kRequests[] = {
    {"token",
     [](const Parsed& message) -> Request { return TokenRequest{String(message, "token")}; }},
    {"run", ParseRun},
    {"watch", ParseWatch},
    {"keep", [](const Parsed&) -> Request { return KeepRequest{}; }},
    {"rules",
     [](const Parsed& message) -> Request {
       return RulesRequest{Strings(message, "rules", kMostRules)};
     }},
};

}  // namespace

Request ParseRequest(std::string_view text) {
  const Parsed message = Parsed::parse(text, nullptr, false);
  if (!message.is_object()) throw Refusal("a message is no JSON object");
  for (const auto& [key, parse] : kRequests) {
    if (message.contains(key)) return parse(message);
  }
  throw Refusal("a message is none of token, run, watch, keep and rules");
}

}  // namespace kvox::web
