#include "daemon/usage.h"

#include "platform/platform.h"

namespace kvox {

std::vector<HelpRow> UsageOptions() {
  return {
      {"-h, --help", "Show this"},
      {"--version", "Show the version"},
  };
}

std::vector<HelpRow> UsageSignals() {
  return {
      {"SIGTERM", "Ends the daemon"},
      {"SIGINT, SIGHUP", "End its event loop: it serves on, but sees no devices come or go"},
      {"SIGPIPE, SIGXFSZ", "Are ignored"},
  };
}

std::vector<HelpRow> UsageExits() {
  return {
      {"0", "--help or --version was given"},
      {"2", "wrong usage"},
  };
}

const char* UsageSummary() {
  return "Serves the audio co-processor's clients until it is ended with SIGTERM.";
}

std::string Usage() {
  return std::string("Usage: kvoxd\n\n") + UsageSummary() + "\n" +
         HelpSection("Options", UsageOptions()) + HelpSection("Environment", DaemonVariables()) +
         HelpSection("Signals", UsageSignals()) + HelpSection("Exit status", UsageExits());
}

}  // namespace kvox
