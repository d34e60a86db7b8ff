#include "kvox/common/channel_runs.h"

#include <gtest/gtest.h>

#include <string>

namespace kvox {
namespace {

/// `in` converted into an output of dots.
std::string Interleave(const std::string& in, const ChannelRuns& runs, size_t* converted) {
  std::string out(in.size(), '.');
  *converted =
      InterleaveRuns(std::as_bytes(std::span(in)), runs, std::as_writable_bytes(std::span(out)));
  return out;
}

TEST(ChannelRuns, BecomeInterleavedGroupByGroup) {
  const struct {
    const char* why;
    ChannelRuns runs;
    const char* in;
    const char* out;
    size_t converted;
  } rows[] = {
      {"two channels, 16 bits", {2, 2, 2}, "a0a1b0b1", "a0b0a1b1", 8},
      {"two channels, 32 bits", {2, 2, 4}, "LL00LL11RR00RR11", "LL00RR00LL11RR11", 16},
      {"three channels, two groups", {3, 2, 1}, "abABxycdCDzw", "aAxbBycCzdDw", 12},
      {"runs of one are interleaved already", {2, 1, 2}, "a0b0a1b1", "a0b0a1b1", 8},
      {"what does not fill a group stays", {2, 2, 1}, "abABcdC", "aAbB...", 4},
      {"nothing fills a group", {2, 5, 1}, "abABcdCD", "........", 0},
  };
  for (const auto& row : rows) {
    size_t converted;
    EXPECT_EQ(Interleave(row.in, row.runs, &converted), row.out) << row.why;
    EXPECT_EQ(converted, row.converted) << row.why;
  }
}

}  // namespace
}  // namespace kvox
