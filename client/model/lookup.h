// From the words that people use for things to the things themselves.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "client/errors.h"
#include "client/model/snapshot.h"

namespace kvox::client {

// A name that does not exist throws Failure(kNoObject), which lists near matches; a word that can
// be no name at all throws UsageError.

/// A processor by its four characters, or by its number.
struct ProcessorId {
  int32_t id = 0;
  std::string name;
};
ProcessorId LookUpProcessor(Daemon& daemon, const std::string& word);

/// A processor that hands audio to a client and takes audio from it. Throws UsageError for others.
ProcessorId LookUpRelay(Daemon& daemon, const std::string& word);

/// True for what a processor can be called so that its name is shown and found again: up to four
/// printable characters, no blank at either end.
bool CanBeProcessor(const std::string& name);

/// The code of a processor that is to be made. Throws UsageError.
ProcessorId NewProcessorId(const std::string& argument, const std::string& word);

/// A type that the daemon knows.
ProcessorId LookUpType(Daemon& daemon, const std::string& word);

/// "imic.0" on whichever core has it, "2:imic.0" on core 2; "imic" when it has one index.
TapPoint LookUpTap(Daemon& daemon, const std::string& word);

/// A buffer by name or number.
Buffer LookUpBuffer(Daemon& daemon, Direction direction, const std::string& word);

/// A buffer of either direction by name; by number only when one direction has it.
Buffer LookUpBuffer(Daemon& daemon, const std::string& word);

/// The number of a buffer, or -1 for "none" and "-".
int32_t LookUpBufferOrNone(Daemon& daemon, Direction direction, const std::string& word);

/// A use case's name as the daemon spells it; case counts for nothing.
std::string LookUpUseCase(Daemon& daemon, const std::string& word);

/// A number within a range. Throws UsageError, which names argument and range.
int32_t Number(const std::string& argument, const std::string& word, int32_t least, int32_t most);

/// A gain: any finite number. Throws UsageError.
float Gain(const std::string& argument, const std::string& word);

/// The parts of a tap point's name. Pure.
struct TapWord {
  std::optional<int> core;
  std::string code;
  std::optional<int> index;
};
std::optional<TapWord> ReadTapWord(const std::string& word);

}  // namespace kvox::client
