// A program under measurement, as a child that ends with the benchmark whatever ends that.
#pragma once

#include <sys/types.h>

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace kvox::bench {

/// A core that a thread may be bound to: the last of those that this process may use. The first
/// ones have the interrupts.
int MeasuringCore();

/// Binds the calling thread to a core, or lets it run everywhere again.
void BindToCore(std::optional<int> core);

/// This program, for children that play a role of it.
std::string OwnProgram();

/// Killed with the object, and by the system when the thread that made it ends.
class Child {
 public:
  /// Runs `words`, the first of which is the program's path, bound to `core` if given. Output and
  /// errors go into the files `output` with .out and .err. Throws std::runtime_error.
  Child(std::vector<std::string> words, const std::filesystem::path& output,
        std::optional<int> core = std::nullopt);
  ~Child();
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;

  pid_t pid() const { return pid_; }

  /// How the child ended by itself: "exit status 1", "signal 11 (Segmentation fault)". None while
  /// it runs.
  std::optional<std::string> Ended();

  /// Sends a signal, unless the child has ended.
  void Signal(int number);

  /// Waits at most `seconds` for the child to end by itself. Answers what it printed; throws
  /// std::runtime_error when it failed or did not end.
  std::string Finish(int seconds);

 private:
  const std::string program_;
  const std::filesystem::path output_;
  pid_t pid_ = -1;
  std::optional<std::string> end_;
};

}  // namespace kvox::bench
