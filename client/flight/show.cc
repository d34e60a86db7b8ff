// The verb flight show: what is in a folder that kvoxweb's flight recorder has kept.

#include <time.h>

#include <algorithm>
#include <filesystem>

#include "client/audio/gap_list.h"
#include "client/flight/verbs.h"
#include "client/output/json.h"
#include "client/system/files.h"
#include "kvox/common/fixed_text.h"

namespace kvox::client {
namespace {

constexpr size_t kLongest = 16 << 20;
constexpr size_t kEntriesShown = 20;

/// The object in the file. Throws Failure.
Json ReadObject(const std::string& folder, const char* name) {
  const std::string path = folder + "/" + name;
  if (!std::filesystem::exists(path)) {
    throw UsageError("'" + path +
                     "' does not exist; name a folder that kvoxweb has kept, such as one in "
                     "~/.local/state/kvox");
  }
  const auto bytes = ReadFile(path, kLongest);
  Json object = Json::parse(bytes, nullptr, false);
  if (!object.is_object()) throw Failure(kFailed, "'" + path + "' is no JSON object");
  return object;
}

/// "2026-11-23 16:02:11.480", or without the date.
std::string TimeAt(const Json& at_ms, bool with_date = false) {
  const auto ms = at_ms.is_number_unsigned() ? at_ms.get<uint64_t>() : 0;
  const auto seconds = static_cast<time_t>(ms / 1000);
  tm parts{};
  localtime_r(&seconds, &parts);
  char text[32];
  strftime(text, sizeof text, "%F %T", &parts);
  constexpr size_t kDateLength = 11;
  return (with_date ? text : text + kDateLength) +
         FormatText<8>(".%03u", static_cast<unsigned>(ms % 1000));
}

void AddFile(const Json& file, const std::string& folder, std::vector<std::string>& lines) {
  const auto rate = file.value("sample_rate_hz", 0u);
  const auto name = file.value("file", "");
  lines.push_back(
      FormatText<96>("  %.3f s, %u channel(s) of %u Hz, from ",
                     static_cast<double>(file.value("frames", uint64_t{0})) / std::max(rate, 1u),
                     file.value("channels", 0u), rate) +
      TimeAt(file.value("begin_ms", Json())) + ": " + folder + "/" + name);
  const Json list = {{"files", Json::array({file})}};
  for (const ListedGap& gap : ParseGaps(list.dump(), name)) {
    lines.push_back("    " + TextOf(gap, rate));
  }
}

void AddCauses(const Json& causes, std::vector<std::string>& lines) {
  if (causes.empty()) lines.push_back("  nothing, as far as the flight log reaches back");
  for (const Json& cause : causes) {
    lines.push_back("  " + TimeAt(uint64_t(cause.value("first_ms", 0.0))) + "  " +
                    cause.value("stream", "") + ": " + cause.value("cause", "") + ", " +
                    std::to_string(cause.value("lost", 0)) + " lost");
  }
}

void AddLog(const Json& entries, std::vector<std::string>& lines) {
  const size_t skipped = entries.size() - std::min(entries.size(), kEntriesShown);
  for (size_t i = skipped; i < entries.size(); ++i) {
    const Json& entry = entries[i];
    lines.push_back("  " + TimeAt(entry.value("at_ms", Json())) + "  " + entry.value("kind", "") +
                    " " + entry.value("subject", "") + " " + entry.value("text", ""));
  }
  if (skipped > 0) lines.push_back(FormatText<64>("  and %zu before these", skipped));
}

}  // namespace

int ShowFlight(const Context& context) {
  const std::string folder = context.in.Get("FOLDER");
  const Json report = ReadObject(folder, "report.json");
  const Json why = ReadObject(folder, "why.json");
  const Json log = ReadObject(folder, "log.json");
  try {
    std::vector<std::string> lines = {"kept " + TimeAt(report.value("kept_ms", Json()), true) +
                                      ", because of: " + report.value("reason", "")};
    for (const Json& file : report.at("files")) AddFile(file, folder, lines);
    for (const Json& error : report.at("errors")) {
      lines.push_back("  missing: " + error.get<std::string>());
    }
    lines.push_back("What went wrong in the minute before; kvoxctl why --flight " + folder +
                    "/flight says more:");
    AddCauses(why.value("causes", Json::array()), lines);
    lines.push_back("What happened last:");
    AddLog(log.value("entries", Json::array()), lines);
    Json document = report;
    document["causes"] = why.value("causes", Json::array());
    document["log"] = log.value("entries", Json::array());
    context.out.One(lines, document);
  } catch (const Json::exception& error) {
    throw Failure(kFailed, "'" + folder + "' is no folder that kvoxweb has kept: " + error.what());
  }
  return kDone;
}

}  // namespace kvox::client
