// Other instruments' recordings against what other programs computed for them: PTU files of
// PicoQuant instruments (a lifetime histogram through the replay tagger, damaged copies), a
// Becker & Hickl SPC-150 FIFO file against its per-photon listing, and Photon-HDF5 files, written
// here with several photon_data groups or a real file of a non-conformant variant.

#include <gtest/gtest.h>
#include <hdf5.h>

#include <algorithm>
#include <bit>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <vector>

#include "file_format_testing.h"
#include "files/foreign/channel_mapping.h"
#include "files/foreign/picosecond_scale.h"
#include "foreign_testing.h"
#include "zeptick/file_reader.h"
#include "zeptick/histogram.h"

namespace zeptick::testing {
namespace {

using foreign::kSyncChannel;

const std::string kT2 = "02_hydraharp2_T2/v20_t2.ptu";
const std::string kT3 = "04_hydraharp2_T3/v20_t3.ptu";
const std::string kFlim = "05_picoharp300_T3_flim_image/ptu_stack_FLIM_z1.ptu";

// The byte offset of the value of the header tag `name` (and index), found by its name alone.
size_t tagValueOffset(const Bytes& file, const std::string& name, int32_t index = -1) {
  for (size_t at = 16; at + 48 <= file.size(); at += 8) {
    if (std::equal(name.begin(), name.end(), file.begin() + static_cast<long>(at)) &&
        file[at + name.size()] == 0 && static_cast<int32_t>(u32At(file, at + 32)) == index) {
      return at + 40;
    }
  }
  ADD_FAILURE() << name << " not in the header";
  return 0;
}

TEST(PtuRecording, HydraHarpT2WrapsAtTwoToThe25AndPicoHarpT3TimesSitOnTheSyncGrid) {
  ZT_REQUIRE_REAL_DATA();
  const ForeignRead t2 = readForeign(realData(kT2));
  ASSERT_TRUE(t2.open);
  // One detector, no sync, no markers; times in 1 ps units.
  EXPECT_EQ(countPerChannel(t2.tags), (std::map<int32_t, size_t>{{1, 305565}}));
  const std::vector<int64_t> photons = timesOn(t2.tags, 1);
  EXPECT_EQ(std::vector<int64_t>(photons.begin(), photons.begin() + 10),
            (std::vector<int64_t>{24433765, 42010976, 42303858, 65241860, 71933885, 87149772,
                                  124793256, 131543896, 134363435, 136622106}));
  EXPECT_EQ(photons.back(), 4999964931763);

  EXPECT_EQ(t2.settings["record_type"], "HydraHarp V2 T2");
  EXPECT_EQ(t2.settings["records"], 435319);
  EXPECT_EQ(t2.settings["header"]["CreatorSW_Name"], "HydraHarp AcqUI");
  // 88 tag entries, Header_End being the one not kept.
  EXPECT_EQ(t2.settings["header"].size(), 87u);

  const ForeignRead read = readForeign(realData(kFlim));
  ASSERT_TRUE(read.open);
  // Router channel 1 is detector 0; markers 1 to 3 are line start, line stop and frame.
  EXPECT_EQ(countPerChannel(read.tags),
            (std::map<int32_t, size_t>{
                {1, 150363}, {1000, 121344}, {1001, 1280}, {1002, 1280}, {1003, 5}}));
  EXPECT_EQ(read.settings["tag_version"], "00.0.1");
  EXPECT_EQ(read.settings["header"]["TTResult_SyncRate"], 78020000);
  const double period = read.settings["global_resolution_ps"];
  const double bin = read.settings["resolution_ps"];
  EXPECT_NEAR(period, 1.281722635221738e4, 1e-6);
  EXPECT_NEAR(bin, 96.96969697, 1e-6);

  // Neither resolution is whole picoseconds: each time is rounded once from the exact product,
  // so a marker k sync periods in lies within half a picosecond of k x period.
  const std::vector<int64_t> starts = timesOn(read.tags, 1001), stops = timesOn(read.tags, 1002),
                             frames = timesOn(read.tags, 1003);
  EXPECT_EQ(starts.front(), 0);
  for (size_t line = 0; line < starts.size(); ++line) {
    EXPECT_LE(std::abs(stops[line] - starts[line] - 126464 * period), 1.0) << line;
  }
  for (size_t k = 0; k < frames.size(); ++k) {
    EXPECT_LE(std::abs(frames[k] - (k + 1) * 32374784 * period), 0.5) << k;
  }
  EXPECT_LE(std::abs(read.tags.back().time - 2.074774673160728e12), 0.5);
  // Every photon sits at most 132 bins after its own sync.
  int64_t sync = -1, latest = 0;
  for (const Tag& tag : read.tags) {
    if (tag.channel == kSyncChannel) sync = tag.time;
    if (tag.channel == 1) latest = std::max(latest, tag.time - sync);
  }
  EXPECT_EQ(latest, std::llround(132 * bin));
}

// The HydraHarp T3 file as read, its lifetime histogram through the replay tagger, and copies of
// it, each damaged in one way, against the intact file's stream.
TEST(PtuRecording, HydraHarpT3LifetimeHistogramAndDamagedCopiesEndingWithWhatAndWhere) {
  ZT_REQUIRE_REAL_DATA();
  const Bytes intact = readBytes(realData(kT3));
  const ForeignRead full = readForeign(realData(kT3));
  ASSERT_TRUE(full.open);
  const size_t data = tagValueOffset(intact, "Header_End") + 8;
  EXPECT_EQ(countPerChannel(full.tags),
            (std::map<int32_t, size_t>{{1, 45012}, {2, 32871}, {kSyncChannel, 77699}}));
  // Compressed overflow counts: the last sync lies at 49,999,358 periods of 1/SyncRate, 10 s in.
  const double period = full.settings["global_resolution_ps"];
  EXPECT_NEAR(period, 1e12 / 4999960, 1e-6);
  EXPECT_EQ(timesOn(full.tags, kSyncChannel).back(), std::llround(49999358 * period));
  {
    // One 200 ns laser period in 64 ps bins. The sync before a photon's own lies a whole period
    // earlier, outside the histogram, so each photon counts once.
    constexpr size_t kBins = 3125;
    Replay replay(2);
    Histogram histogram(replay.tagger.get(), 1, kSyncChannel, 64, kBins);
    replay.play(realData(kT3));
    EXPECT_EQ(replay.tagger->getConfiguration(), full.configuration);
    // The reference: the dtime of each photon record (special bit 0) of detector 0.
    std::vector<int32_t> reference(kBins);
    for (size_t at = data; at + 4 <= intact.size(); at += 4) {
      if ((u32At(intact, at) >> 25) == 0) ++reference.at((u32At(intact, at) >> 10) & 0x7FFF);
    }
    EXPECT_EQ(collect(histogram, &Histogram::getData), reference);
  }

  // The value of header tag `name` changed, and its type too where one is given.
  const auto with = [&](Bytes copy, const std::string& name, uint64_t value, uint32_t type = 0) {
    const size_t at = tagValueOffset(intact, name);
    putLittleEndian(copy, at, value, 8);
    if (type != 0) putLittleEndian(copy, at - 4, type, 4);
    return copy;
  };
  // Numbers written as reals: whole ones count, others (here beyond any integer, which the
  // conversion once met undefined) read as the absent value that the reader refuses.
  const auto real = [&](Bytes copy, const std::string& name, double value) {
    return with(std::move(copy), name, std::bit_cast<uint64_t>(value), 0x20000008);
  };
  const auto cut = [&](size_t size) { return Bytes(intact.begin(), intact.begin() + size); };
  struct Case {
    std::string what;
    Bytes bytes;
    LogLevel level;
    std::string message;  // how the logged line ends
    bool whole_stream;    // all of the intact stream, or a leading part of it
  };
  const std::vector<Case> cases = {
      {"cut in a record", cut(data + 4 * 50000 + 2), LOGGER_ERROR,
       "is cut short: the PTU header announces 106349 records, the data end after record 50000 "
       "(byte " +
           std::to_string(data + 4 * 50000) + ").",
       false},
      {"count too large", with(intact, "TTResult_NumberOfRecords", 200000), LOGGER_ERROR,
       "the data end after record 106349 (byte " + std::to_string(intact.size()) + ").", true},
      {"count zero", with(intact, "TTResult_NumberOfRecords", 0), LOGGER_WARNING,
       "PTU header gives 0 records; reading the 106349 the file holds.", true},
      {"count negative", with(intact, "TTResult_NumberOfRecords", uint64_t(-1127383114)),
       LOGGER_WARNING, "PTU header gives -1127383114 records; reading the 106349 the file holds.",
       true},
      {"count too small", with(intact, "TTResult_NumberOfRecords", 7), LOGGER_WARNING,
       "PTU header gives 7 records, the file holds 106349; reading all.", true},
      {"cut in the header", cut(1000), LOGGER_ERROR, "PTU header ends before Header_End (byte ",
       false},
      {"record type", with(intact, "TTResultFormat_TTTRRecType", 0x12345678), LOGGER_ERROR,
       "PTU record type 0x12345678 is not supported.", false},
      {"resolution", real(intact, "MeasDesc_GlobalResolution", std::nan("")), LOGGER_ERROR,
       "PTU header gives no usable MeasDesc_GlobalResolution (nan s).", false},
      {"count a huge real, bits a whole one",
       real(real(intact, "TTResult_NumberOfRecords", 1e300), "TTResultFormat_BitsPerRecord", 32.0),
       LOGGER_WARNING, "PTU header gives -1 records; reading the 106349 the file holds.", true},
      {"record type a huge real", real(intact, "TTResultFormat_TTTRRecType", -4.0e173),
       LOGGER_ERROR, "PTU record type 0xffffffffffffffff is not supported.", false},
      {"payload length", with(intact, "CreatorSW_Name", uint64_t{1} << 40), LOGGER_ERROR,
       "claims a payload beyond the end of the file", false},
  };
  ScratchDirectory dir;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    const std::string path = dir.file("damaged.ptu");
    writeBytes(path, c.bytes);
    LogCapture log;
    const ForeignRead read = readForeign(path);
    const bool found = std::ranges::any_of(log.entries(), [&](const LogCapture::Entry& entry) {
      return entry.level == c.level && entry.text.find(c.message) != std::string::npos &&
             entry.text.find(path) != std::string::npos;
    });
    EXPECT_TRUE(found) << (log.messages().empty() ? "nothing logged" : log.messages().front());
    ASSERT_LE(read.tags.size(), full.tags.size());
    EXPECT_EQ(read.tags.size() == full.tags.size(), c.whole_stream);
    const auto head = full.tags.begin() + static_cast<ptrdiff_t>(read.tags.size());
    EXPECT_TRUE(sameTags(read.tags, std::vector<Tag>(full.tags.begin(), head)));
  }

  // Replay ends a cut file where its data end, and says so.
  const std::string path = dir.file("cut.ptu");
  writeBytes(path, cases.front().bytes);
  LogCapture log;
  Replay replay(2);
  EXPECT_EQ(replay.play(path).size(), readForeign(path).tags.size());
  EXPECT_TRUE(log.waitFor(LOGGER_ERROR, "(byte " + std::to_string(data + 4 * 50000) + ")."));
  // A file that is no PTU file any more is not taken for one.
  Bytes renamed = intact;
  renamed[0] = 'X';
  writeBytes(path, renamed);
  EXPECT_THROW(replay.tagger->replay(path), std::runtime_error);
}

TEST(PicosecondScale, RoundsOnceFromTheStoredUnitAndKeepsWholeUnitsExact) {
  // 1/SyncRate of a 4,999,960 Hz laser as the header stores it: count x that double, worked
  // out in exact integers, rounded once, for counts up to 2^30 syncs (215 s).
  const double unit = 1.0 / 4999960;
  const auto sync = foreign::PicosecondScale::fromSeconds(unit);
  ASSERT_TRUE(sync);
  int exponent = 0;
  const auto mantissa = static_cast<int64_t>(std::ldexp(std::frexp(unit, &exponent), 53));
  const int shift = 53 - exponent;  // unit = mantissa / 2^shift
  std::mt19937_64 rng(3);
  for (int i = 0; i < 1000; ++i) {
    const uint64_t count = rng() >> 34;
    __extension__ using Wide = unsigned __int128;
    const Wide scaled = static_cast<Wide>(count) * static_cast<Wide>(mantissa) * 1000000000000u;
    const auto exact = static_cast<int64_t>((scaled + (Wide{1} << (shift - 1))) >> shift);
    EXPECT_EQ((*sync)(count), exact) << count;
  }
  // Whole picoseconds as written stay whole; a near-whole 1/SyncRate does not.
  EXPECT_EQ(foreign::PicosecondScale::fromSeconds(static_cast<float>(64e-12))->picoseconds(), 64);
  EXPECT_EQ((*foreign::PicosecondScale::fromSeconds(1e-12))(uint64_t{1} << 60), int64_t{1} << 60);
  EXPECT_EQ((*foreign::PicosecondScale::fromSeconds(1.0 / 79999997))(1000000000), 12500000468750);
  EXPECT_FALSE(foreign::PicosecondScale::fromSeconds(0.0));
  EXPECT_FALSE(foreign::PicosecondScale::fromSeconds(std::nan("")));
}

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

  EXPECT_EQ(read.settings["macrotime_clock_ps"], kClock);
  EXPECT_NEAR(read.settings["tac_bin_ps"].get<double>(), kTacBin, 1e-9);
  EXPECT_EQ(read.settings["parameters"]["SP_TAC_G"], 5);

  EXPECT_EQ(FileReader(realData(kSpc)).getData(1 << 20).size, read.tags.size());
}

const std::string kVariant = "07_photon_hdf5_variant/photon_hdf5_min.h5";

// Writes `name` (parents created) as a dataset of `stored` type from native int64 values, or
// from one native double as a scalar.
void writeDataset(hid_t file, const std::string& name, const void* values, hsize_t size,
                  hid_t stored, hid_t native = H5T_NATIVE_INT64) {
  const hid_t links = H5Pcreate(H5P_LINK_CREATE);
  H5Pset_create_intermediate_group(links, 1);
  const hid_t space = size == 0 ? H5Screate(H5S_SCALAR) : H5Screate_simple(1, &size, nullptr);
  const hid_t set = H5Dcreate2(file, name.c_str(), stored, space, links, H5P_DEFAULT, H5P_DEFAULT);
  ASSERT_GE(set, 0) << name;
  H5Dwrite(set, native, H5S_ALL, H5S_ALL, H5P_DEFAULT, values);
  H5Dclose(set);
  H5Sclose(space);
  H5Pclose(links);
}
void writeScalar(hid_t file, const std::string& name, double value) {
  writeDataset(file, name, &value, 0, H5T_IEEE_F64LE, H5T_NATIVE_DOUBLE);
}

TEST(PhotonHdf5Recording, MultispotGroupsMergeInTimeAndAVariantPlaysOnceGivenItsUnit) {
  ScratchDirectory dir;
  const std::string path = dir.file("multispot.h5");
  constexpr int64_t kUnit = 12500, kTcspc = 16;  // ps
  std::mt19937_64 rng(11);
  std::vector<std::pair<int64_t, int32_t>> expected;
  const hid_t file = H5Fcreate(path.c_str(), H5F_ACC_TRUNC, H5P_DEFAULT, H5P_DEFAULT);
  // More photons than one chunk, so that groups are merged across several reads.
  for (const auto& [group, photons] :
       {std::pair{"photon_data0", 150000}, {"photon_data1", 90000}}) {
    std::vector<int64_t> stamps, detectors, nanotimes;
    int64_t stamp = 3;
    for (int i = 0; i < photons; ++i) {
      stamp += static_cast<int64_t>(rng() % 4);  // repeats: photons sharing a sync
      stamps.push_back(stamp);
      detectors.push_back(static_cast<int64_t>(rng() % 3));
      nanotimes.push_back(static_cast<int64_t>(rng() % 4096));
      if (i == 0 || stamps[i - 1] != stamp) expected.emplace_back(stamp * kUnit, 1000);
      expected.emplace_back(stamp * kUnit + nanotimes.back() * kTcspc,
                            static_cast<int32_t>(detectors.back() + 1));
    }
    const std::string name = group;
    writeDataset(file, name + "/timestamps", stamps.data(), photons, H5T_STD_I64LE);
    writeDataset(file, name + "/detectors", detectors.data(), photons, H5T_STD_U8LE);
    writeDataset(file, name + "/nanotimes", nanotimes.data(), photons, H5T_STD_U16LE);
    writeScalar(file, name + "/timestamps_specs/timestamps_unit", kUnit * 1e-12);
    writeScalar(file, name + "/nanotimes_specs/tcspc_unit", kTcspc * 1e-12);
  }
  H5Fclose(file);
  std::sort(expected.begin(), expected.end());

  const ForeignRead multispot = readForeign(path);
  ASSERT_TRUE(multispot.open);
  EXPECT_GE(multispot.blocks, 3u);
  EXPECT_EQ(sortedTimeTags(multispot.tags), expected);
  EXPECT_EQ(multispot.settings["groups"]["photon_data1"]["photons"], 90000);

  // A real file of a variant without the timestamp unit is refused.
  ZT_REQUIRE_REAL_DATA();
  LogCapture log;
  const ForeignRead refused = readForeign(realData(kVariant));
  EXPECT_FALSE(refused.open);
  EXPECT_TRUE(refused.tags.empty());
  EXPECT_TRUE(log.contains(LOGGER_ERROR,
                           "is not playable Photon-HDF5: "
                           "photon_data0/timestamps_specs/timestamps_unit is missing."));
  // The unit its users pass by hand, added to a copy: int32 detectors in a numbered group.
  const std::string copy = dir.file("variant.h5");
  std::filesystem::copy_file(realData(kVariant), copy);
  std::filesystem::permissions(copy, std::filesystem::perms::owner_write,
                               std::filesystem::perm_options::add);
  const hid_t variant = H5Fopen(copy.c_str(), H5F_ACC_RDWR, H5P_DEFAULT);
  ASSERT_GE(variant, 0);
  writeScalar(variant, "photon_data0/timestamps_specs/timestamps_unit", 5e-9);
  H5Fclose(variant);
  const ForeignRead given = readForeign(copy);
  ASSERT_TRUE(given.open);
  EXPECT_EQ(countPerChannel(given.tags), (std::map<int32_t, size_t>{{1, 727}, {2, 553}}));
  EXPECT_NEAR((given.tags.back().time - given.tags.front().time) * 1e-12, 6.535, 0.001);
}

}  // namespace
}  // namespace zeptick::testing
