#include "tests/campaign/resource_trend.h"

#include <gtest/gtest.h>

#include <random>

namespace kvox::campaign {
namespace {

std::vector<Sample> Series(int count, double (*value)(int)) {
  std::vector<Sample> samples;
  for (int i = 0; i < count; ++i) samples.push_back({i * 10.0, value(i)});
  return samples;
}

TEST(TrendTest, FindsASteadyRiseInNoiseAndOutliers) {
  std::mt19937 random(1);
  std::vector<Sample> samples;
  for (int i = 0; i < 60; ++i) {
    const double noise = static_cast<double>(random() % 100) - 50;
    samples.push_back({i * 30.0, 9000 + i * 30.0 + noise + (i % 5 == 0 ? 4000 : 0)});
  }
  EXPECT_NEAR(RobustRise(samples), 59 * 30, 150);
}

TEST(TrendTest, IgnoresWhatComesAndGoes) {
  EXPECT_EQ(RobustRise(Series(40, [](int i) { return i % 3 == 0 ? 12000.0 : 9000.0; })), 0);
  EXPECT_EQ(RobustRise(Series(40, [](int i) { return i == 39 ? 99.0 : 33.0; })), 0);
}

TEST(TrendTest, FindsOneThatStaysLost) {
  EXPECT_GE(RobustRise(Series(40, [](int i) { return i < 20 ? 33.0 : 34.0; })), 0.5);
}

TEST(TrendTest, NeedsTwoSamples) {
  EXPECT_EQ(RobustRise({}), 0);
  EXPECT_EQ(RobustRise({{1, 5}}), 0);
  EXPECT_EQ(RobustRise({{1, 5}, {1, 9}}), 0);
}

}  // namespace
}  // namespace kvox::campaign
