#pragma once

// Helpers of the tests on other instruments' recordings: where the real files live, and every
// block of a file read through its reader.

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <utility>
#include <vector>

#include "files/foreign/foreign_format.h"
#include "zeptick/tag.h"

namespace zeptick::testing {

/// A file of the shared folder of real recordings (never copied into the repository).
inline std::string realData(const std::string& name) {
  return std::string(ZEPTICK_SOURCE_DIR "/../shared/realdata/") + name;
}

#define ZT_REQUIRE_REAL_DATA()                                                             \
  if (!std::filesystem::is_directory(::zeptick::testing::realData(""))) {                  \
    GTEST_SKIP() << "the real recordings are not at " << ::zeptick::testing::realData(""); \
  }

struct ForeignRead {
  bool open = false;
  std::vector<Tag> tags;
  size_t blocks = 0;
  int64_t end = 0;      ///< end of the last block
  uint64_t errors = 0;  ///< lost-data events the reader counted
  std::string configuration;
  nlohmann::json settings;  ///< the configuration parsed
};

/// Every block of `path`, checked to join without a gap and to hold ordered tags in its span.
inline ForeignRead readForeign(const std::string& path) {
  ForeignRead read;
  const auto format = foreign::detectForeignFormat(path);
  if (format == foreign::ForeignFormat::None) return read;
  std::unique_ptr<RecordingSource> reader = foreign::openForeignRecording(path, format);
  read.open = reader->isOpen();
  read.configuration = reader->getConfiguration();
  read.settings = nlohmann::json::parse(read.configuration, nullptr, false);
  int64_t begin = 0, end = 0;
  std::vector<Tag> tags;
  while (reader->getBlockRange(begin, end)) {
    EXPECT_EQ(begin, read.end) << "block " << read.blocks;
    EXPECT_TRUE(reader->decodeBlock(tags, begin, read.errors));
    for (const Tag& tag : tags) {
      EXPECT_TRUE(tag.time >= begin && tag.time < end) << tag.time << " in " << begin;
      EXPECT_LE(read.tags.empty() ? tag.time : read.tags.back().time, tag.time);
      read.tags.push_back(tag);
    }
    read.end = end;
    ++read.blocks;
  }
  return read;
}

inline std::map<int32_t, size_t> countPerChannel(const std::vector<Tag>& tags) {
  std::map<int32_t, size_t> counts;
  for (const Tag& tag : tags) ++counts[tag.channel];
  return counts;
}

/// Time tags only, ordered by time then channel: tags of one instant have no order of their own.
inline std::vector<std::pair<int64_t, int32_t>> sortedTimeTags(const std::vector<Tag>& tags) {
  std::vector<std::pair<int64_t, int32_t>> out;
  for (const Tag& tag : tags) {
    if (tag.type == Tag::Type::TimeTag) out.emplace_back(tag.time, tag.channel);
  }
  std::sort(out.begin(), out.end());
  return out;
}

inline std::vector<int64_t> timesOn(const std::vector<Tag>& tags, int32_t channel) {
  std::vector<int64_t> times;
  for (const Tag& tag : tags) {
    if (tag.channel == channel) times.push_back(tag.time);
  }
  return times;
}

}  // namespace zeptick::testing
