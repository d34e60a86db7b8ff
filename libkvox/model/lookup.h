// Resolves the words that users type for objects.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "libkvox/model/snapshot.h"

namespace kvox::client {

// Functions that end in -Named trust the word as far as possible and query the daemon only for the
// rest: the object may not exist. Those that start with LookUp- use the daemon's lists: a name that
// is not in them throws Failure(kNoObject), which suggests similar ones. Invalid names throw
// UsageError.

/// A processor by its four characters, or by its number.
struct ProcessorId {
  int32_t id = 0;
  std::string name;
};
ProcessorId ProcessorNamed(Daemon& daemon, const std::string& word);
ProcessorId LookUpProcessor(Daemon& daemon, const std::string& word);

/// A processor that exchanges audio with a client. Throws UsageError for others.
ProcessorId LookUpRelay(Daemon& daemon, const std::string& word);

/// True for names that lists show as they are: up to four printable characters, no blank at either
/// end.
bool CanBeProcessor(const std::string& name);

/// The id of a processor that is to be created. Throws UsageError.
ProcessorId NewProcessorId(const std::string& argument, const std::string& word);

/// A type of processor that the daemon has.
ProcessorId LookUpType(Daemon& daemon, const std::string& word);

/// "2:imic.0" on core 2, "imic.0" on the one core that has it; "imic" when it has one index.
///
/// TapNamed() costs no exchange with the co-processor when core and index are given, and two or
/// three without the core: all cores must be asked to know that a name is unique.
TapPoint TapNamed(Daemon& daemon, const std::string& word);
TapPoint LookUpTap(Daemon& daemon, const std::string& word);
TapPoint SelectTap(const std::vector<TapPoint>& taps, const std::string& word);

/// The parts of a tap point's name.
struct TapWord {
  std::optional<int> core;
  std::string code;
  std::optional<int> index;
};
std::optional<TapWord> ParseTapWord(const std::string& word);

/// A buffer of either direction by name; by number only when one direction has it.
Buffer LookUpBuffer(Daemon& daemon, const std::string& word);

/// The number of a buffer of one direction by name or number; the first two return -1 for "none"
/// and "-".
int32_t BufferOrNoneNamed(Daemon& daemon, Direction direction, const std::string& word);
int32_t LookUpBufferOrNone(Daemon& daemon, Direction direction, const std::string& word);
int32_t LookUpBuffer(Daemon& daemon, Direction direction, const std::string& word);

/// A use case's name as the daemon spells it; case does not matter.
std::string UseCaseNamed(Daemon& daemon, const std::string& word);
std::string LookUpUseCase(Daemon& daemon, const std::string& word);

}  // namespace kvox::client
