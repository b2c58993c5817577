// Recordings written out as Photon-HDF5 and other instruments' files converted to .ztbin: each
// is read back through our own readers and must give the tags of the original.

#include <gtest/gtest.h>

#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include "file_format_testing.h"
#include "foreign_testing.h"
#include "zeptick/file_reader.h"
#include "zeptick/recording_conversion.h"

namespace zeptick::testing {
namespace {

TEST(PhotonHdf5Export, OurTimeTagsAndOtherInstrumentsT3FilesRoundTripExactly) {
  ScratchDirectory dir;
  std::mt19937_64 rng(5);
  // Falling edges (negative channels) and a virtual channel beside the inputs; overflow spans,
  // errors and missed events, which the format cannot hold.
  const std::vector<int> channels = {1, 2, -1, 1005};
  const auto blocks = randomStream(rng, 300, channels);
  std::vector<std::pair<int32_t, int32_t>> map;
  for (int channel : channels) map.emplace_back(channel, CHANNEL_UNUSED);
  writeRecording(dir.file("ours.ztbin"), blocks, map);
  const auto expected = sortedTimeTags(concatenate(readRecording(dir.file("ours.ztbin"))));
  ASSERT_GT(expected.size(), 1000u);

  LogCapture log;
  EXPECT_EQ(exportPhotonHdf5(dir.file("ours.ztbin"), dir.file("ours.h5")), expected.size());
  const ForeignRead back = readForeign(dir.file("ours.h5"));
  ASSERT_TRUE(back.open);
  EXPECT_EQ(sortedTimeTags(back.tags), expected);
  EXPECT_EQ(back.tags.size(), expected.size());  // no sync tags made up
  ASSERT_EQ(log.entries().size(), 1u);
  EXPECT_NE(log.entries()[0].text.find("were left out"), std::string::npos);

  // T3 files with their micro times: markers among the photons (05), non-whole-picosecond bins
  // and sync period (05), two detectors (04), SPC's reversed micro time (06). Exported to
  // Photon-HDF5 they keep every time tag; converted to .ztbin, every tag, in blocks that verify.
  ZT_REQUIRE_REAL_DATA();
  for (const char* name : {"05_picoharp300_T3_flim_image/ptu_stack_FLIM_z1.ptu",
                           "04_hydraharp2_T3/v20_t3.ptu", "06_bh_spc150_fifo/test_noise.spc"}) {
    SCOPED_TRACE(name);
    const ForeignRead source = readForeign(realData(name));
    ASSERT_TRUE(source.open);
    exportPhotonHdf5(realData(name), dir.file("out.h5"));
    const ForeignRead back = readForeign(dir.file("out.h5"));
    ASSERT_TRUE(back.open);
    EXPECT_EQ(sortedTimeTags(back.tags), sortedTimeTags(source.tags));
    // Written with nanotimes, not as a flat list of channels.
    EXPECT_TRUE(back.settings["groups"]["photon_data"].contains("tcspc_unit_ps"));

    EXPECT_EQ(convertToZtbin(realData(name), dir.file("out")), source.tags.size());
    EXPECT_TRUE(sameTags(concatenate(readRecording(dir.file("out.1.ztbin"), true)), source.tags));
    EXPECT_EQ(FileReader(dir.file("out")).getConfiguration(), source.configuration);
  }
  EXPECT_THROW(convertToZtbin(dir.file("out.1.ztbin"), dir.file("again")), std::runtime_error);
}

}  // namespace
}  // namespace zeptick::testing
