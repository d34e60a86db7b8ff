// What pages send to kvoxweb: messages, and the Host and Origin of their requests; the input is one
// of each, a line each. A command that is let through is one of kvoxctl's verbs and names no file
// of this machine; a read-only page may do nothing that another may not.

#include <algorithm>
#include <array>
#include <span>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "fuzz/check.h"
#include "libkvox/errors.h"
#include "web/server/access.h"
#include "web/server/commands.h"
#include "web/server/request.h"

namespace kvox::fuzz {
namespace {

using Words = std::vector<std::string>;

/// What kvoxctl would be given; nothing for a command that is refused.
Words Arguments(const Words& words, bool read_only) {
  try {
    return web::CheckCommand(words, read_only);
  } catch (const client::UsageError& error) {
    Check(*error.what() != '\0', "a refusal says why");
    return {};
  }
}

void CheckWords(const Words& words) {
  const Words arguments = Arguments(words, false);
  const Words looking = Arguments(words, true);
  Check(looking.empty() || looking == arguments, "read-only pages may do nothing more");
  if (arguments.empty()) return;
  Check(std::ranges::equal(words, std::span(arguments).last(words.size())),
        "words stay as they are");
  constexpr std::array<std::string_view, 6> kForbidden = {"record", "play",   "call",
                                                          "listen", "flight", "bugreport"};
  Check(std::ranges::find(kForbidden, words.front()) == kForbidden.end(), "verbs are of the list");
  for (const std::string& word : words) {
    for (const std::string_view option : {"--flight", "--gaps", "--listen"}) {
      Check(!word.starts_with(option), "no option names a file");
    }
    Check(word.find('\0') == word.npos, "no word is cut");
  }
}

void CheckMessage(std::string_view text) {
  try {
    const web::Request request = web::ParseRequest(text);
    if (const auto* const run = std::get_if<web::RunRequest>(&request)) CheckWords(run->words);
  } catch (const web::Refusal& refusal) {
    // It is sent in a close frame.
    Check(std::string_view(refusal.what()).size() < 120, "a refusal fits");
  }
}

std::string_view TakeLine(std::string_view& text) {
  const size_t end = std::min(text.find('\n'), text.size());
  const std::string_view line = text.substr(0, end);
  text.remove_prefix(std::min(end + 1, text.size()));
  return line;
}

}  // namespace
}  // namespace kvox::fuzz

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace kvox;
  std::string_view text(reinterpret_cast<const char*>(data), size);
  fuzz::CheckMessage(fuzz::TakeLine(text));
  const std::string_view host = fuzz::TakeLine(text);
  const bool known = web::IsKnownHost(host, {"audio.example"});
  fuzz::Check(!known || host.starts_with('[') || host.find_first_of("lL1aA") == 0,
              "no other host is known");
  if (web::IsOwnOrigin(text, host) && !text.empty()) {
    fuzz::Check(text.starts_with("http"), "an origin has a scheme");
  }
  return 0;
}
