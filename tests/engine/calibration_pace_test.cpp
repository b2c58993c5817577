#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

#include "zeptick_impl_fixture.h"

namespace zeptick::testing {
namespace {

using CalibrationPace = EmulatedTagger;

// A host that falls behind the stream sees, in the pass's half second, only a quarter of the
// test edges a quiet one sees (about 200 000 per input instead of 800 000). The table the
// user's timing rests on must still hold the full count: later random events then move its
// edges as little as on a quiet host.
TEST_F(CalibrationPace, PassCountsTestEdgesNotTime) {
  json entry = ultraBoard("CALP");
  entry["inputs"] = 4;
  entry["pacing"] = 0.25;
  ZeptickImpl& zt = open(entry);
  std::vector<size_t> sizes;
  const std::vector<int64_t> counts = collect(zt, &ZeptickImpl::getDistributionCount, &sizes);
  ASSERT_EQ(sizes.size(), 2u);
  for (size_t row = 0; row < sizes[0]; ++row) {
    int64_t sum = 0;
    for (size_t bin = 0; bin < sizes[1]; ++bin) sum += counts[row * sizes[1] + bin];
    EXPECT_GE(sum, 500000) << "row " << row;
  }
}

}  // namespace
}  // namespace zeptick::testing
