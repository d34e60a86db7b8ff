// Standard output of a program that others call: what cannot be written is not lost silently.
#pragma once

#include <string>

namespace kvox::client {

/// To be called first. Takes the places of standard descriptors that are closed, so that no socket
/// or file gets them, and lets a reader that goes be no reason to die.
void PrepareStandardStreams();

/// Writes the text to standard output at once. Throws std::runtime_error when that fails. A reader
/// that has gone is no failure: it had what it wanted.
void PrintOut(const std::string& text);

}  // namespace kvox::client
