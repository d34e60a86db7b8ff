// Compares docs/json.md with what the verbs print.
#include <nlohmann/json.hpp>
#include <regex>
#include <set>

#include "client/command_line/verb.h"
#include "tests/sim/wav_file.h"
#include "tests/system/system_fixture.h"

namespace kvox {
namespace {

using nlohmann::json;
using Names = std::set<std::string>;

/// The verbs of one heading of the page and their keys; without verbs, the common keys.
struct Section {
  Names verbs;
  Names keys;
};

Names InBackticks(const std::string& text) {
  static const std::regex pattern("`([^`]+)`");
  Names names;
  for (std::sregex_iterator at(text.begin(), text.end(), pattern), end; at != end; ++at) {
    names.insert((*at)[1]);
  }
  return names;
}

std::vector<Section> ReadPage() {
  std::vector<Section> sections;
  std::istringstream lines(ReadText(KVOX_JSON_PAGE));
  for (std::string line; std::getline(lines, line);) {
    if (line.starts_with("#")) sections.push_back({InBackticks(line), {}});
    if (line.starts_with("| `"))
      sections.back().keys.merge(InBackticks(line.substr(0, line.find(" | "))));
  }
  return sections;
}

void AddKeys(const json& value, Names& keys) {
  if (!value.is_structured()) return;
  for (const auto& [key, part] : value.items()) {
    if (value.is_object()) keys.insert(key);
    AddKeys(part, keys);
  }
}

/// The verb of a command line.
std::string VerbOf(const std::string& line) {
  std::string longest;
  for (const client::Verb& verb : client::AllVerbs()) {
    const std::string words = verb.words;
    if ((line + " ").starts_with(words + " ") && words.size() > longest.size()) longest = words;
  }
  return longest;
}

class JsonPageTest : public SystemTest {
 protected:
  JsonPageTest() { StartBoth(); }

  void Note(const std::string& line, const std::string& out) {
    const json document = json::parse(out.substr(0, out.find('\n')), nullptr, false);
    EXPECT_TRUE(document.is_object()) << line << "\n" << out;
    AddKeys(document, printed_[VerbOf(line)]);
  }

  void Try(const std::string& line) {
    const std::string& verb = VerbOf(line);
    Note(line, Run(Words(verb == "call" ? "--json " + line : line + " --json")).out);
  }

  void TryWatch() {
    const Process watch(KVOXCTL_PROGRAM, Words("watch --json --interval 0.1 --count 1"),
                        directory_ / "watch");
    EXPECT_TRUE(WaitFor([&] {
      Do("processor new wtch pass");
      Do("processor delete wtch");
      return CountOf("\n", watch.Out()) > 0;
    }));
    Note("watch", watch.Out());
  }

  /// A folder as kvoxweb's flight recorder keeps it.
  void TryFlightShow() {
    std::filesystem::create_directory("kept");
    std::ofstream("kept/report.json")
        << R"({"schema": 1, "kept_ms": 1, "reason": "asked", "files": [], "errors": []})";
    std::ofstream("kept/why.json") << R"({"causes": []})";
    std::ofstream("kept/log.json") << R"({"entries": []})";
    Try("flight show kept");
  }

  std::map<std::string, Names> printed_;
};

constexpr char kLines[] = R"(
wait daemon; wait buffer tapout0; wait tap imic.0; ping; doctor;
processor types; processor new pass; wait processor pass; connect pass tapout0 inject0;
processor enable pass; processor status pass; processor list; processor info pass;
stats pass; stats --entries 9; stats --reset;
param list; param get pass; param set pass BLOCK_LENGTH 480;
tap connect genp.0 tapout0 inject0; tap block-length genp.0 480; tap jitter-buffer genp.0 480;
tap gain genp.0 1; io start tapout0; tap enable genp.0; tap list; tap info genp.0; buffer list; graph;
capture start tapout0 heard.wav; capture status; capture stop tapout0; verify quiet.wav; debug buffer_dump tapout 0;
export; disconnect pass; top -n 1 --measure; apply --dry-run state.toml; apply state.toml;
usecase list; usecase enable AREL_TELE; usecase status AREL_TELE; usecase gain AREL_TELE 1;
record art0 heard.wav --seconds 0.3; play art1 heard.wav; usecase disable AREL_TELE;
stats; why tapout0; latency tapout40; trace trace.json; flight save flight; bugreport report.tar.gz;
processor new idle pass; processor disable idle; disconnect idle;
call ListProcessors; call GetParameter idle BLOCK_LENGTH 0; call ProcessorGetStats idle;
call GetParameterBulk idle BLOCK_LENGTH:0; processor delete idle;
tap disable imic.0; tap disconnect imic.0; io stop;
meter imic.0 --once; route imic.0 rout --type pass; unroute rout)";

TEST_F(JsonPageTest, NamesTheKeysThatVerbsPrint) {
  std::filesystem::current_path(directory_.path());
  std::ofstream("state.toml") << "schema = 1\n[[processor]]\nid = 'none'\ntype = 'pass'\n";
  sim::WriteWav("quiet.wav", SF_FORMAT_PCM_16, 1, std::vector<int16_t>(480));
  std::istringstream lines(kLines);
  for (std::string line; std::getline(lines >> std::ws, line, ';');) Try(line);
  TryWatch();
  Fault("packet-drop probability=0.5 for=20");
  Try("record imic.0 gaps.wav --seconds 0.5");
  TryFlightShow();
  std::filesystem::current_path("/");

  const std::vector<Section> page = ReadPage();
  Names frame;
  for (const Section& section : page) {
    if (section.verbs.empty()) frame.insert(section.keys.begin(), section.keys.end());
  }
  Names verbs;
  for (const Section& section : page) {
    Names printed;
    for (const std::string& verb : section.verbs) {
      EXPECT_NE(VerbOf(verb), "") << verb;
      verbs.insert(verb);
      printed.insert(printed_[verb].begin(), printed_[verb].end());
    }
    if (section.verbs.empty()) continue;
    for (const std::string& key : frame) printed.erase(key);
    EXPECT_EQ(section.keys, printed) << *section.verbs.begin();
  }
  for (const client::Verb& verb : client::AllVerbs()) {
    const bool prints_other_text = Names{"completion", "metrics", "listen"}.contains(verb.words);
    if (prints_other_text) continue;
    EXPECT_EQ(verbs.count(verb.words), 1u) << verb.words;
  }
}

}  // namespace
}  // namespace kvox
