#include <fstream>
#include <iterator>
#include <sstream>

#include "client/doctor/gather.h"

namespace kvox::client {
namespace {

constexpr int kSysNice = 23;  // the kernel's number of CAP_SYS_NICE

std::string ReadText(const std::string& path) {
  std::stringstream text;
  text << std::ifstream(path).rdbuf();
  return text.str();
}

/// The words after `name` on the line that starts with it; none when no line does.
std::vector<std::string> WordsAfter(const std::string& name, const std::string& text) {
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    if (!line.starts_with(name)) continue;
    std::istringstream words(line.substr(name.size()));
    return {std::istream_iterator<std::string>(words), {}};
  }
  return {};
}

std::string WordAfter(const std::string& name, const std::string& text) {
  const auto words = WordsAfter(name, text);
  return words.empty() ? "" : words.front();
}

std::optional<uint64_t> ReadNumber(const std::string& word, int base) {
  std::istringstream stream(word);
  uint64_t number = 0;
  if (base == 16) stream >> std::hex;
  return stream >> number ? std::optional(number) : std::nullopt;
}

}  // namespace

ProcessFacts ParseProcess(int pid, const std::string& limits, const std::string& status) {
  ProcessFacts facts{.pid = pid};
  const std::string limit = WordAfter("Max realtime priority", limits);
  facts.rtprio_limit =
      limit == "unlimited" ? std::optional<uint64_t>(UINT64_MAX) : ReadNumber(limit, 10);
  const std::string state = WordAfter("State:", status);
  if (!state.empty()) facts.state = state.front();
  for (const char* const name : {"Gid:", "Groups:"}) {
    for (const std::string& word : WordsAfter(name, status)) {
      if (const auto group = ReadNumber(word, 10)) {
        facts.groups.push_back(static_cast<uint32_t>(*group));
      }
    }
  }
  const uint64_t capabilities = ReadNumber(WordAfter("CapEff:", status), 16).value_or(0);
  facts.sys_nice = (capabilities >> kSysNice & 1) != 0;
  return facts;
}

ProcessFacts InspectProcess(int pid) {
  const std::string folder = "/proc/" + std::to_string(pid);
  return ParseProcess(pid, ReadText(folder + "/limits"), ReadText(folder + "/status"));
}

}  // namespace kvox::client
