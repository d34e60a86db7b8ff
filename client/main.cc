// kvoxctl: the command-line client of kvoxd.

#include <unistd.h>

#include <cstdio>
#include <iostream>
#include <string>
#include <vector>

#include "client/command_line/command_line.h"
#include "client/command_line/script.h"
#include "client/completion/completion.h"
#include "client/output/printer.h"
#include "kvox/common/fixed_text.h"
#include "kvox/common/log.h"

namespace kvox {

/// The client logs to standard error: it starts faster without the log library, which it would
/// rarely use.
LogTarget& SystemLog() {
  class StandardError : public LogTarget {
   public:
    void Write(LogPriority priority, const char*, const char* line) override {
      if (priority == LogPriority::kInfo) return;
      fprintf(stderr, "kvoxctl: %s\n", EscapeControls(line).c_str());
    }
  };
  static StandardError log;
  return log;
}

}  // namespace kvox

namespace {

using namespace kvox::client;

/// `out` prints as the command line says, once that is parsed.
int Run(const std::vector<std::string>& words, Printer& out) {
  if (!words.empty() && words.front() == kCompletionOption) {
    return Complete({words.begin() + 1, words.end()});
  }
  if (words == std::vector<std::string>{"-"}) {
    return RunLines(std::cin, [&](const auto& next) {
      if (next == words) throw UsageError("standard input is being read already; leave out -");
      return Run(next, out);
    });
  }
  const CommandLine line = ReadCommandLine(words, "kvoxctl " KVOX_VERSION);
  if (line.verb == nullptr || !line.help.empty()) {
    PrintOut(line.help);
    return kDone;
  }
  out = Printer(line.format, line.color);
  Daemon daemon(line.wait, line.verb->kind == VerbKind::kRawCall ? kNoDaemon : kTimedOut);
  return RunVerb(*line.verb, {.in = line.in, .out = out, .daemon = daemon});
}

}  // namespace

int main(int argc, char** argv) {
  PrepareStandardStreams();
  Printer out(Format::kText, Color::kAuto);
  int status = kFailed;
  try {
    status = Run({argv + 1, argv + argc}, out);
  } catch (const Failure& failure) {
    out.Message(failure.what());
    status = failure.status();
  } catch (const std::exception& error) {
    out.Message(error.what());
  }
  // Everything is printed: the binder's threads need no clean shutdown.
  _exit(status);
}
