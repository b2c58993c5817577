#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "emulator/stream/source_random.h"

namespace zeptick::emulator {
namespace {

// Shares of a million draws beyond several thresholds against the exact
// distribution, within five standard errors; the far thresholds land in the
// ziggurat's tail and wedge paths, which the fast path never takes.
TEST(StreamRandomTest, VariatesFollowTheirDistributionsIntoTheTails) {
  constexpr int kDraws = 1'000'000;
  Random random(mixSeed(3, 1));
  auto within = [](int64_t count, double p) {
    const double expected = p * kDraws;
    return std::fabs(static_cast<double>(count) - expected) <= 5 * std::sqrt(expected) + 1;
  };

  const std::vector<double> exp_cuts = {0.01, 0.5, 1, 2, 5, 7.7, 10};
  std::vector<int64_t> exp_beyond(exp_cuts.size());
  double exp_sum = 0;
  for (int i = 0; i < kDraws; ++i) {
    const double x = random.exponential();
    ASSERT_GE(x, 0);
    exp_sum += x;
    for (size_t c = 0; c < exp_cuts.size(); ++c) exp_beyond[c] += x > exp_cuts[c];
  }
  EXPECT_NEAR(exp_sum / kDraws, 1.0, 0.005);
  for (size_t c = 0; c < exp_cuts.size(); ++c) {
    EXPECT_TRUE(within(exp_beyond[c], std::exp(-exp_cuts[c])))
        << "P(X > " << exp_cuts[c] << ") from " << exp_beyond[c];
  }

  const std::vector<double> normal_cuts = {0.1, 1, 2, 3, 3.44, 4};
  std::vector<int64_t> normal_beyond(normal_cuts.size());
  int64_t negative = 0;
  double square_sum = 0;
  for (int i = 0; i < kDraws; ++i) {
    const double x = random.normal();
    negative += x < 0;
    square_sum += x * x;
    for (size_t c = 0; c < normal_cuts.size(); ++c)
      normal_beyond[c] += std::fabs(x) > normal_cuts[c];
  }
  EXPECT_TRUE(within(negative, 0.5));
  EXPECT_NEAR(square_sum / kDraws, 1.0, 0.01);
  for (size_t c = 0; c < normal_cuts.size(); ++c) {
    EXPECT_TRUE(within(normal_beyond[c], std::erfc(normal_cuts[c] / std::sqrt(2.0))))
        << "P(|X| > " << normal_cuts[c] << ") from " << normal_beyond[c];
  }
}

}  // namespace
}  // namespace zeptick::emulator
