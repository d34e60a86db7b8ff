// The use cases as rows of steps. A step is one of the service's own commands.
#pragma once

#include <aidl/kvox/IKvox.h>

#include <cstdint>
#include <optional>
#include <span>
#include <string>

#include "kvox/common/four_cc.h"
#include "service/tap_point.h"

namespace kvox {

using aidl::kvox::IKvox;

/// The hot-word processor. It has no buffers of ours.
inline constexpr FourCc kHotwordProcessor = MakeFourCc("hwae");

struct UseCaseStep {
  enum class Command {
    kNewProcessor,
    kConnect,
    kProcessorEnable,
    kDeleteProcessor,
    kConnectTap,
    kTapSetBlockLength,  // to the processor's
    kTapEnable,
    kStartIo,
    kStopIo,
  };
  enum class OnFailure {
    kStop,    // a failure ends the use case there
    kReport,  // continues after a failure; the last step's status is the use case's
    kIgnore,  // continues after a failure, which is not reported
  };

  Command command;
  FourCc processor = 0;
  FourCc type = 0;
  TapArguments tap = {};
  int buffer = -1;  // tap-out and inject buffer of the same number; -1 for none
  bool enable = false;
  OnFailure on_failure = OnFailure::kStop;
};

/// The steps that switch a use case on or off; empty for one without steps.
std::span<const UseCaseStep> StepsOf(IKvox::UseCase use_case, bool enable);

/// The tap point whose gain is the use case's; none for a use case without a gain.
std::optional<TapArguments> GainTapOf(IKvox::UseCase use_case);

/// The use case that a relay processor belongs to; UNSPECIFIED for none.
IKvox::UseCase UseCaseOfRelay(FourCc relay);

/// A use case by its name, in upper or lower case; UNSPECIFIED for an unknown name.
IKvox::UseCase stringToUseCase(const std::string& name);

/// Whether there is such a use case, with or without steps.
bool IsSupported(IKvox::UseCase use_case);

}  // namespace kvox
