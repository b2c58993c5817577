#pragma once

#include <stdlib.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <filesystem>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "zeptick/tag.h"

namespace zeptick::bench {

/// Blocks of the realistic stream and the stream time each one spans (5 ms).
inline constexpr size_t kRecordingBlocks = 8;
inline constexpr int64_t kRecordingBlockSpan = 5000000000;

/// The realistic stream cut into blocks, and its total number of tags.
struct Recording {
  std::vector<std::vector<Tag>> blocks;
  size_t tags = 0;
};

/// A laser sync on channel 1 at 10 MHz with 5 ps of jitter, two detectors on channels 2 and 3
/// with Poisson arrivals at 2 MHz each, and a rare overflow: about 70,000 tags per block. Block
/// b spans [b, b + 1) times kRecordingBlockSpan.
inline const Recording& realisticStream() {
  static const Recording recording = [] {
    Recording out;
    std::mt19937_64 rng(2026);
    std::normal_distribution<double> jitter(0.0, 5.0);
    std::exponential_distribution<double> detector(2e6 / 1e12);
    for (size_t b = 0; b < kRecordingBlocks; ++b) {
      const int64_t begin = static_cast<int64_t>(b) * kRecordingBlockSpan;
      const int64_t end = begin + kRecordingBlockSpan;
      std::vector<Tag> tags;
      for (int64_t t = begin; t < end; t += 100000) {
        tags.push_back({Tag::Type::TimeTag, 0, 0, 1, t + std::llround(jitter(rng))});
      }
      for (int32_t channel : {2, 3}) {
        for (double t = static_cast<double>(begin) + detector(rng); t < static_cast<double>(end);
             t += detector(rng)) {
          tags.push_back({Tag::Type::TimeTag, 0, 0, channel, static_cast<int64_t>(t)});
        }
      }
      if (b == 3) {
        const int64_t at = begin + kRecordingBlockSpan / 2;
        tags.push_back({Tag::Type::OverflowBegin, 0, 0, CHANNEL_UNUSED, at});
        tags.push_back({Tag::Type::MissedEvents, 0, 1200, 2, at});
        tags.push_back({Tag::Type::OverflowEnd, 0, 0, CHANNEL_UNUSED, at + 20000000});
      }
      std::stable_sort(tags.begin(), tags.end(),
                       [](const Tag& a, const Tag& b) { return a.time < b.time; });
      out.tags += tags.size();
      out.blocks.push_back(std::move(tags));
    }
    return out;
  }();
  return recording;
}

/// The channel map the recording is written with: each input with its falling edge.
inline const std::vector<std::pair<int32_t, int32_t>> kRecordingChannels = {
    {1, -1}, {2, -2}, {3, -3}};

/// A scratch directory whose writer output goes to /dev/null, so that the disk is not timed.
class NullFile {
 public:
  NullFile() {
    std::string pattern = std::filesystem::temp_directory_path() / "zeptick-bench-XXXXXX";
    directory = mkdtemp(pattern.data());
    base = directory / "null";
    std::filesystem::create_symlink("/dev/null", base.string() + ".ztbin");
  }
  ~NullFile() { std::filesystem::remove_all(directory); }
  NullFile(const NullFile&) = delete;
  NullFile& operator=(const NullFile&) = delete;
  std::filesystem::path directory;
  std::filesystem::path base;
};

}  // namespace zeptick::bench
