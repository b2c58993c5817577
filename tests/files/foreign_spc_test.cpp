// Becker & Hickl SPC-150 FIFO recording against the per-photon listing another program wrote.

#include <gtest/gtest.h>

#include <cmath>
#include <fstream>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "file_format_testing.h"
#include "files/foreign/channel_mapping.h"
#include "foreign_testing.h"
#include "zeptick/file_reader.h"

namespace zeptick::testing {
namespace {

const std::string kSpc = "06_bh_spc150_fifo/test_noise.spc";
constexpr int64_t kClock = 9500;       // ps per macrotime unit, from the first word
constexpr double kTacBin = 2.4430455;  // ps, SP_TAC_TC of the .set file

TEST(SpcRecording, EveryPhotonMatchesTheListingWithReversedMicrotime) {
  ZT_REQUIRE_REAL_DATA();
  const ForeignRead read = readForeign(realData(kSpc));
  ASSERT_TRUE(read.open);
  // The listing: macrotime (unwrapped, in clock units) and microtime (natural direction).
  std::ifstream listing(realData("06_bh_spc150_fifo/test_noise.asc"));
  std::vector<std::pair<int64_t, int64_t>> rows;
  int64_t macro = 0, micro = 0;
  while (listing >> macro >> micro) rows.emplace_back(macro, micro);
  ASSERT_EQ(rows.size(), 6114u);

  size_t row = 0;
  int64_t sync = -1;
  for (const Tag& tag : read.tags) {
    if (tag.channel == foreign::kSyncChannel) {
      sync = tag.time;
      continue;
    }
    if (tag.channel >= foreign::kMarkerChannelBase) continue;
    ASSERT_LT(row, rows.size());
    const auto [row_macro, row_micro] = rows[row++];
    EXPECT_EQ(sync, row_macro * kClock) << "row " << row;
    // The macrotime is whole picoseconds, so rounding the sum rounds the microtime part alone.
    EXPECT_EQ(tag.time, row_macro * kClock + std::llround(row_micro * kTacBin)) << "row " << row;
  }
  EXPECT_EQ(row, rows.size());
  EXPECT_EQ(sync, int64_t{1700018969} * kClock);  // the last macrotime, 16.15 s in

  const auto settings = nlohmann::json::parse(read.configuration);
  EXPECT_EQ(settings["macrotime_clock_ps"], kClock);
  EXPECT_NEAR(settings["tac_bin_ps"].get<double>(), kTacBin, 1e-9);
  EXPECT_EQ(settings["parameters"]["SP_TAC_G"], 5);

  // FileReader hands out the same stream.
  FileReader reader(realData(kSpc));
  EXPECT_EQ(bufferTags(reader.getData(1 << 20)).size(), read.tags.size());
}

}  // namespace
}  // namespace zeptick::testing
