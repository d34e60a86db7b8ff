#include "kvox/common/log_filter.h"

#include <gtest/gtest.h>

namespace kvox {
namespace {

TEST(LogFilter, KeepsATagsLinesFromItsPriorityOn) {
  const struct {
    const char* list;
    const char* kept;  // of "kvox" and of "other": info, warning, error
  } rows[] = {
      {nullptr, "IWE IWE"},      {"", "IWE IWE"},
      {"*:w", "WE WE"},          {"kvox:e", "E IWE"},
      {"kvox:i *:s", "IWE "},    {"*:F,kvox:V", "IWE "},
      {"\tkvox\n*:E ", "IWE E"}, {"kvox:x *:loud :e x", "IWE IWE"},
      {"a:b:s *:d", "IWE IWE"},  {"kvox:W,,  other:S", "WE "},
  };
  for (const auto& row : rows) {
    const LogFilter filter(row.list);
    std::string kept;
    for (const char* tag : {"kvox", "other"}) {
      if (tag[0] == 'o') kept += ' ';
      if (filter.Keeps(LogPriority::kInfo, tag)) kept += 'I';
      if (filter.Keeps(LogPriority::kWarning, tag)) kept += 'W';
      if (filter.Keeps(LogPriority::kError, tag)) kept += 'E';
    }
    EXPECT_EQ(kept, row.kept) << (row.list == nullptr ? "null" : row.list);
  }
}

}  // namespace
}  // namespace kvox
