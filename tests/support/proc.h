// Information about another process from /proc.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

namespace kvox {

inline std::filesystem::path ProcPath(pid_t pid) {
  return std::filesystem::path("/proc") / std::to_string(pid);
}

/// The entries of a directory that may change while it is read; none if it is missing.
inline std::vector<std::filesystem::path> Entries(const std::filesystem::path& directory) {
  std::vector<std::filesystem::path> entries;
  std::error_code error;
  for (std::filesystem::directory_iterator it(directory, error), end; !error && it != end;
       it.increment(error)) {
    entries.push_back(it->path());
  }
  return entries;
}

/// The first word after `key` and a colon in a file of such lines; "" when there is none.
inline std::string ProcField(const std::filesystem::path& file, const std::string& key) {
  std::ifstream stream(file);
  for (std::string line; std::getline(stream, line);) {
    std::istringstream words(line);
    std::string word;
    words >> word;
    if (word != key && word != key + ":") continue;
    if (word == key) words >> word;  // a colon with blanks before it
    words >> word;
    return word;
  }
  return "";
}

struct ResourceUsage {
  size_t descriptors = 0;
  size_t threads = 0;
  int64_t memory_kib = 0;  // resident

  /// "33 descriptors, 14 threads, 9216 KiB"
  std::string Text() const {
    return std::to_string(descriptors) + " descriptors, " + std::to_string(threads) + " threads, " +
           std::to_string(memory_kib) + " KiB";
  }
};

/// Zeros when there is no such process.
inline ResourceUsage ReadResources(pid_t pid) {
  const std::string memory = ProcField(ProcPath(pid) / "status", "VmRSS");
  return {.descriptors = Entries(ProcPath(pid) / "fd").size(),
          .threads = Entries(ProcPath(pid) / "task").size(),
          .memory_kib = memory.empty() ? 0 : std::stoll(memory)};
}

/// How many of the process's threads have that name.
inline size_t CountThreads(pid_t pid, const std::string& name) {
  size_t count = 0;
  for (const auto& thread : Entries(ProcPath(pid) / "task")) {
    std::string its_name;
    std::ifstream stream(thread / "comm");
    if (std::getline(stream, its_name) && its_name == name) ++count;
  }
  return count;
}

/// The most that was resident since the start or ForgetPeakMemory; 0 when there is no such process.
inline int64_t PeakMemoryKib(pid_t pid) {
  const std::string memory = ProcField(ProcPath(pid) / "status", "VmHWM");
  return memory.empty() ? 0 : std::stoll(memory);
}
inline void ForgetPeakMemory(pid_t pid) {
  std::ofstream(ProcPath(pid) / "clear_refs") << "5";
}

/// What every thread waits in and what every descriptor is, one per line.
inline std::string DescribeProcess(pid_t pid) {
  std::string text;
  for (const auto& thread : Entries(ProcPath(pid) / "task")) {
    std::string name;
    std::string wait;
    std::getline(std::ifstream(thread / "comm"), name);
    std::getline(std::ifstream(thread / "wchan"), wait);
    text += "thread " + thread.filename().string() + " " + name + " waits in " + wait + "\n";
  }
  for (const auto& descriptor : Entries(ProcPath(pid) / "fd")) {
    std::error_code error;
    const auto target = std::filesystem::read_symlink(descriptor, error);
    text += "descriptor " + descriptor.filename().string() + " " + target.string() + "\n";
  }
  return text;
}

}  // namespace kvox
