// kvoxctl: the command-line client of kvoxd.

#include <unistd.h>

#include <string>
#include <vector>

#include "client/command_line.h"
#include "client/completion/completion.h"
#include "client/standard_streams.h"

namespace {

using namespace kvox::client;

int Run(const std::vector<std::string>& words) {
  if (!words.empty() && words.front() == kCompletionDoor) {
    return Complete({words.begin() + 1, words.end()});
  }
  const CommandLine line = ReadCommandLine(words, "kvoxctl " KVOX_VERSION);
  if (line.verb == nullptr || !line.help.empty()) {
    PrintOut(line.help);
    return kDone;
  }
  const Out out(line.format, line.color);
  Daemon daemon(line.wait, line.verb->manner == Manner::kRaw ? kNoDaemon : kTimedOut);
  try {
    return line.verb->run({.in = line.in, .out = out, .daemon = daemon});
  } catch (const Failure& failure) {
    out.Message(failure.what());
    return failure.status();
  } catch (const std::exception& error) {
    out.Message(error.what());
    return dynamic_cast<const UsageError*>(&error) != nullptr ? kWrongUsage : kFailed;
  }
}

}  // namespace

int main(int argc, char** argv) {
  HoldStandardStreams();
  int status;
  try {
    status = Run({argv + 1, argv + argc});
  } catch (const std::exception& error) {
    Out(Format::kText, Color::kAuto).Message(error.what());
    status = dynamic_cast<const UsageError*>(&error) != nullptr ? kWrongUsage : kFailed;
  }
  // The answer is out: the binder's threads need no orderly end.
  _exit(status);
}
