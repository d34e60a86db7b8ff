// kvox_manual: writes the manual pages while the programs are built.
#include <cstdio>
#include <exception>
#include <filesystem>
#include <fstream>

#include "manual/pages.h"

namespace kvox::manual {
namespace {

constexpr struct {
  const char* file;
  std::string (*page)(const Edition&);
} kPages[] = {
    {"kvoxctl.1", KvoxctlPage},
    {"kvosim.1", KvosimPage},
    {"kvoxd.8", KvoxdPage},
};

int WritePages(const std::filesystem::path& directory, const Edition& edition) {
  create_directories(directory);
  for (const auto& row : kPages) {
    std::ofstream file(directory / row.file);
    file << row.page(edition) << std::flush;
    if (file) continue;
    fprintf(stderr, "kvox_manual: %s cannot be written; see whether there is room\n",
            (directory / row.file).c_str());
    return 1;
  }
  return 0;
}

}  // namespace
}  // namespace kvox::manual

int main(int argc, char** argv) {
  if (argc != 4) {
    fputs("Usage: kvox_manual DIRECTORY VERSION DATE\n", stderr);
    return 2;
  }
  try {
    return kvox::manual::WritePages(argv[1], {.version = argv[2], .date = argv[3]});
  } catch (const std::exception& error) {
    fprintf(stderr, "kvox_manual: %s\n", error.what());
    return 1;
  }
}
