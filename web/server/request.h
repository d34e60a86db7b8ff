// What pages ask for, as docs/web-api.md describes it. Pure.
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace kvox::web {

/// Ends a connection: the page has broken the protocol, or may not be here.
class Refusal : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

struct TokenRequest {
  std::string token;
};

struct RunRequest {
  int64_t id = 0;
  std::vector<std::string> words;
  std::string input;
  bool text = false;  // the reply is what the verb prints for people
};

struct WatchRequest {
  std::vector<std::string> levels;
  std::vector<std::string> audio;
  std::vector<std::string> timing;
};

struct KeepRequest {};

struct RulesRequest {
  std::vector<std::string> rules;
};

using Request = std::variant<TokenRequest, RunRequest, WatchRequest, KeepRequest, RulesRequest>;

/// Throws Refusal.
Request ParseRequest(std::string_view message);

}  // namespace kvox::web
