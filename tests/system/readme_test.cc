#include <regex>

#include "tests/system/system_fixture.h"

namespace kvox {
namespace {

/// A command of a console block, and what is shown below it.
struct Step {
  std::string command;
  std::string shown;
};

std::vector<Step> StepsOf(const std::string& document) {
  std::vector<Step> steps;
  std::istringstream lines(document);
  bool console = false;
  for (std::string line; std::getline(lines, line);) {
    if (line.starts_with("```")) {
      console = line == "```console";
    } else if (console && line.starts_with("$ kvoxctl ")) {
      steps.push_back({line.substr(10), ""});
    } else if (console && !steps.empty()) {
      steps.back().shown += line + "\n";
    }
  }
  return steps;
}

/// Without what varies between runs, and without trailing blanks.
std::string Steady(std::string text, const std::string& home) {
  text = std::regex_replace(text, std::regex("[0-9.]+ (us|samples)"), "N $1");
  for (size_t at; (at = text.find(home)) != text.npos;) text.replace(at, home.size(), "/home/me");
  return std::regex_replace(text, std::regex(" +\n"), "\n");
}

class ReadmeTest : public SystemTest {};

TEST_F(ReadmeTest, ProgramsPrintWhatItShows) {
  StartBoth();
  std::filesystem::current_path(directory_.path());
  const std::vector<Step> steps = StepsOf(ReadText(KVOX_README));
  EXPECT_GT(steps.size(), 15u);
  for (const Step& step : steps) {
    const ClientRun run = Run(Words(step.command));
    EXPECT_EQ(Steady(run.out + run.err, directory_.path().string()),
              Steady(step.shown, directory_.path().string()))
        << step.command;
  }
  std::filesystem::current_path("/");
}

}  // namespace
}  // namespace kvox
