#include "tests/campaign/resources.h"

#include <fmt/format.h>

#include <filesystem>
#include <fstream>
#include <vector>

#include "bench/thread_usage.h"

namespace kvox::campaign {
namespace {

using std::filesystem::path;

/// The entries of a directory that may lose some meanwhile.
std::vector<path> Entries(const path& directory) {
  std::vector<path> entries;
  std::error_code error;
  for (std::filesystem::directory_iterator it(directory, error), end; !error && it != end;
       it.increment(error)) {
    entries.push_back(it->path());
  }
  return entries;
}

path ProcOf(pid_t pid, const char* what) {
  return path("/proc") / std::to_string(pid) / what;
}

std::string FirstLine(const path& file) {
  std::string line;
  std::ifstream stream(file);
  std::getline(stream, line);
  return line;
}

}  // namespace

std::string Resources::Text() const {
  return fmt::format("{} descriptors, {} threads, {} KiB", descriptors, threads, memory_kib);
}

Resources ReadResources(pid_t pid) {
  return {.descriptors = static_cast<int>(Entries(ProcOf(pid, "fd")).size()),
          .threads = static_cast<int>(Entries(ProcOf(pid, "task")).size()),
          .memory_kib = bench::ReadResidentKib(pid)};
}

std::string DescribeResources(pid_t pid) {
  std::string text;
  for (const path& thread : Entries(ProcOf(pid, "task"))) {
    text += fmt::format("thread {} {} waits in {}\n", thread.filename().string(),
                        FirstLine(thread / "comm"), FirstLine(thread / "wchan"));
  }
  for (const path& descriptor : Entries(ProcOf(pid, "fd"))) {
    std::error_code error;
    const path target = std::filesystem::read_symlink(descriptor, error);
    text += fmt::format("descriptor {} {}\n", descriptor.filename().string(), target.string());
  }
  return text;
}

}  // namespace kvox::campaign
