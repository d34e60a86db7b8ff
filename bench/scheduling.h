// Cores and priorities of threads during measurements.
#pragma once

#include <optional>

namespace kvox::bench {

/// This program's path, for its child processes.
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
