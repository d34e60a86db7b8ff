// kvoxctl: the command-line client of kvoxd.

#include <unistd.h>

#include <string>
#include <vector>

#include "client/command_line.h"
#include "client/completion/completion.h"
#include "client/standard_streams.h"

namespace {

using namespace kvox::client;

/// Tells what is being caught. Answers the exit status for it.
int Tell(const Out& out) {
  try {
    throw;
  } catch (const Failure& failure) {
    out.Message(failure.what());
    return failure.status();
  } catch (const UsageError& error) {
    out.Message(error.what());
    return kWrongUsage;
  } catch (const std::exception& error) {
    out.Message(error.what());
    return kFailed;
  }
}

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
  } catch (const std::exception&) {
    return Tell(out);
  }
}

}  // namespace

int main(int argc, char** argv) {
  HoldStandardStreams();
  int status;
  try {
    status = Run({argv + 1, argv + argc});
  } catch (const std::exception&) {
    status = Tell(Out(Format::kText, Color::kAuto));
  }
  // The answer is out: the binder's threads need no orderly end.
  _exit(status);
}
