#include "measurements/channel_index.h"

#include <gtest/gtest.h>

#include <climits>
#include <map>
#include <random>

#include "zeptick/tag.h"

namespace zeptick {
namespace {

// Against std::map, on narrow sets (the array path) and on wide ones with the
// extremes of int (the hashed path), growing from empty.
TEST(ChannelIndexTest, AgreesWithAMapOnNarrowAndWideChannelSets) {
  std::mt19937_64 rng(5);
  for (int round = 0; round < 40; ++round) {
    const bool wide = round % 2 == 1;
    std::uniform_int_distribution<int> any(wide ? INT_MIN : -20, wide ? INT_MAX : 1100);
    detail::ChannelIndex index;
    std::map<int, int> expected;
    const int count = std::uniform_int_distribution<int>(0, 70)(rng);
    std::vector<int> keys;
    for (int i = 0; i < count; ++i) keys.push_back(any(rng));
    if (wide) keys.insert(keys.end(), {INT_MIN, INT_MAX, CHANNEL_UNUSED, -1, 0});
    for (int key : keys) {
      const int next = static_cast<int>(expected.size());
      const auto [it, added] = expected.emplace(key, next);
      ASSERT_EQ(index.insert(key, next), it->second);
    }
    for (const auto& [key, value] : expected) ASSERT_EQ(index.find(key), value) << key;
    for (int i = 0; i < 1000; ++i) {
      const int probe = any(rng);
      const auto found = expected.find(probe);
      ASSERT_EQ(index.find(probe), found == expected.end() ? -1 : found->second) << probe;
    }
  }
  EXPECT_EQ(detail::ChannelIndex().find(0), -1);
}

}  // namespace
}  // namespace zeptick
