// Photon-HDF5 files: several photon_data groups with nanotimes written here, and a real file of
// a non-conformant variant, as it is and with the timestamp unit it lacks.

#include <gtest/gtest.h>
#include <hdf5.h>

#include <algorithm>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <random>
#include <string>
#include <vector>

#include "file_format_testing.h"
#include "files/foreign/channel_mapping.h"
#include "foreign_testing.h"

namespace zeptick::testing {
namespace {

const std::string kVariant = "07_photon_hdf5_variant/photon_hdf5_min.h5";

// Writes `path`/`name` (parents created) as a dataset of int64 values, or a scalar double.
void writeDataset(hid_t file, const std::string& name, const std::vector<int64_t>& values,
                  hid_t stored_type) {
  const hid_t links = H5Pcreate(H5P_LINK_CREATE);
  H5Pset_create_intermediate_group(links, 1);
  const hsize_t size = values.size();
  const hid_t space = H5Screate_simple(1, &size, nullptr);
  const hid_t set =
      H5Dcreate2(file, name.c_str(), stored_type, space, links, H5P_DEFAULT, H5P_DEFAULT);
  ASSERT_GE(set, 0) << name;
  H5Dwrite(set, H5T_NATIVE_INT64, H5S_ALL, H5S_ALL, H5P_DEFAULT, values.data());
  H5Dclose(set);
  H5Sclose(space);
  H5Pclose(links);
}
void writeScalar(hid_t file, const std::string& name, double value) {
  const hid_t links = H5Pcreate(H5P_LINK_CREATE);
  H5Pset_create_intermediate_group(links, 1);
  const hid_t space = H5Screate(H5S_SCALAR);
  const hid_t set =
      H5Dcreate2(file, name.c_str(), H5T_IEEE_F64LE, space, links, H5P_DEFAULT, H5P_DEFAULT);
  ASSERT_GE(set, 0) << name;
  H5Dwrite(set, H5T_NATIVE_DOUBLE, H5S_ALL, H5S_ALL, H5P_DEFAULT, &value);
  H5Dclose(set);
  H5Sclose(space);
  H5Pclose(links);
}

using TagKey = std::pair<int64_t, int32_t>;
std::vector<TagKey> keys(const std::vector<Tag>& tags) {
  std::vector<TagKey> out;
  for (const Tag& tag : tags) out.emplace_back(tag.time, tag.channel);
  std::sort(out.begin(), out.end());
  return out;
}

TEST(PhotonHdf5Recording, MultispotGroupsMergeInTimeWithNanotimesAfterTheirSync) {
  ScratchDirectory dir;
  const std::string path = dir.file("multispot.h5");
  constexpr int64_t kUnit = 12500, kTcspc = 16;  // ps
  std::mt19937_64 rng(11);
  std::vector<TagKey> expected;
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
    writeDataset(file, name + "/timestamps", stamps, H5T_STD_I64LE);
    writeDataset(file, name + "/detectors", detectors, H5T_STD_U8LE);
    writeDataset(file, name + "/nanotimes", nanotimes, H5T_STD_U16LE);
    writeScalar(file, name + "/timestamps_specs/timestamps_unit", kUnit * 1e-12);
    writeScalar(file, name + "/nanotimes_specs/tcspc_unit", kTcspc * 1e-12);
  }
  H5Fclose(file);
  std::sort(expected.begin(), expected.end());

  const ForeignRead read = readForeign(path);
  ASSERT_TRUE(read.open);
  EXPECT_GE(read.blocks, 3u);
  EXPECT_EQ(keys(read.tags), expected);
  const auto settings = nlohmann::json::parse(read.configuration);
  EXPECT_EQ(settings["groups"]["photon_data1"]["photons"], 90000);
}

TEST(PhotonHdf5Recording, VariantWithoutTimestampUnitIsRefusedAndPlaysOnceGivenOne) {
  ZT_REQUIRE_REAL_DATA();
  {
    LogCapture log;
    const ForeignRead read = readForeign(realData(kVariant));
    EXPECT_FALSE(read.open);
    EXPECT_TRUE(read.tags.empty());
    EXPECT_TRUE(log.contains(LOGGER_ERROR,
                             "is not playable Photon-HDF5: "
                             "photon_data0/timestamps_specs/timestamps_unit is missing."));
  }
  // The unit its users pass by hand, added to a copy: int32 detectors in a numbered group.
  ScratchDirectory dir;
  const std::string copy = dir.file("variant.h5");
  std::filesystem::copy_file(realData(kVariant), copy);
  std::filesystem::permissions(copy, std::filesystem::perms::owner_write,
                               std::filesystem::perm_options::add);
  const hid_t file = H5Fopen(copy.c_str(), H5F_ACC_RDWR, H5P_DEFAULT);
  ASSERT_GE(file, 0);
  writeScalar(file, "photon_data0/timestamps_specs/timestamps_unit", 5e-9);
  H5Fclose(file);
  const ForeignRead read = readForeign(copy);
  ASSERT_TRUE(read.open);
  EXPECT_EQ(countPerChannel(read.tags), (std::map<int32_t, size_t>{{1, 727}, {2, 553}}));
  EXPECT_NEAR((read.tags.back().time - read.tags.front().time) * 1e-12, 6.535, 0.001);
}

}  // namespace
}  // namespace zeptick::testing
