// Where and with which priority threads run while something is measured.
#pragma once

#include <optional>

namespace kvox::bench {

/// This program, for children that play a role of it.
inline constexpr char kOwnProgram[] = "/proc/self/exe";

/// The last core that this process may use: the first ones handle the interrupts.
int MeasuringCore();

/// Binds the calling thread to a core, or lets it run on every core again. Threads and processes
/// that it starts inherit that.
void BindToCore(std::optional<int> core);

/// Gives the calling thread a real-time priority below that of the thread under measurement. False
/// when the system does not allow it.
bool RaisePriority();

/// Ordinary priority again.
void DropPriority();

}  // namespace kvox::bench
