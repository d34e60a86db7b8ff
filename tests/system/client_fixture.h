// A machine for tests of kvoxctl's verbs.
#pragma once

#include <string>

#include "tests/system/machine.h"

namespace kvox {

class ClientMachineTest : public MachineTest {
 protected:
  void StartBoth() {
    StartSimulator();
    StartDaemon();
  }

  /// Runs a verb that must end with status 0; what it prints.
  std::string Do(const std::string& line) {
    const ClientRun run = Run(Words(line));
    EXPECT_EQ(run.exit_status, 0) << line << "\n" << run.out << run.err;
    return run.out;
  }

  /// The document that a verb prints as JSON; it must end with status 0.
  nlohmann::json Json(const std::string& line) {
    const std::string out = Do(line + " --json");
    nlohmann::json document = nlohmann::json::parse(out, nullptr, false);
    if (!document.is_object()) document = nlohmann::json::object();
    EXPECT_EQ(document["schema"], 1) << line << "\n" << out;
    return document;
  }

  /// The verb must print nothing, and say so on standard error.
  void ExpectRefusal(const std::string& line, int exit_status, const std::string& message) {
    const ClientRun run = Run(Words(line));
    EXPECT_EQ(run.exit_status, exit_status) << line << "\n" << run.err;
    EXPECT_THAT(run.err, ::testing::HasSubstr(message)) << line;
    EXPECT_EQ(run.out, "") << line;
  }
};

}  // namespace kvox
