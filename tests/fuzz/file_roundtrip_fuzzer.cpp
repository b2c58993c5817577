// Turns arbitrary bytes into a stream of tags, writes it with ZeptickFileWriter, reads it back
// with verification, and checks every block against a plain model of what the encoding keeps.
// Any difference, or any message from writer or reader, aborts.

#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <iterator>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "files/file_format_reference.h"
#include "files/zeptick_file_reader.h"
#include "files/zeptick_file_writer.h"
#include "zeptick/logging.h"

namespace {

using zeptick::Tag;

void noMessages(zeptick::LogLevel, std::string) { std::abort(); }

struct Block {
  std::vector<Tag> tags;
  int64_t begin_time, end_time;
};

// Eight bytes make a tag: its kind, whether a new block starts before it, its channel, a
// missed-event count and a time step that may be tiny, beyond 2^24 or 2^48, or backwards.
std::vector<Block> parse(const uint8_t* data, size_t size) {
  static const int32_t channels[] = {1, -1, 2, 1000000, 5, zeptick::CHANNEL_UNUSED};
  std::vector<Block> blocks = {Block{{}, -1000000, 0}};
  int64_t time = blocks[0].begin_time;
  for (size_t at = 0; at + 8 <= size; at += 8) {
    const uint8_t* record = data + at;
    // One record in sixteen starts a block: each block costs a signature and its check.
    if ((record[0] & 0xF0) == 0xF0) {
      const int64_t end = std::max(time, blocks.back().begin_time) + (record[1] & 0x3F);
      blocks.back().end_time = end;
      blocks.push_back(Block{{}, end, 0});
    }
    uint32_t step = 0;
    std::memcpy(&step, record + 4, sizeof(step));
    // Now and then beyond 2^48, around 2^24, or earlier than the last tag.
    const int64_t gap = step & 0xFFFFF;
    const uint32_t kind_of_step = step >> 29;
    time += kind_of_step == 7   ? gap << 30
            : kind_of_step == 6 ? gap << 8
            : kind_of_step == 5 ? -(gap & 0xFFF)
                                : gap;
    const int kind = record[0] & 0x07;
    blocks.back().tags.push_back(Tag{static_cast<Tag::Type>(kind <= 4 ? kind : 9), 0,
                                     static_cast<uint16_t>(record[2] | (record[3] << 8)),
                                     channels[record[1] % std::size(channels)], time});
  }
  blocks.back().end_time = std::max(time, blocks.back().begin_time) + 1;
  return blocks;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  zeptick::setLogger(&noMessages);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const std::string base = [] {
    const std::filesystem::path shm = "/dev/shm";
    const std::filesystem::path directory =
        std::filesystem::is_directory(shm) ? shm : std::filesystem::temp_directory_path();
    return (directory / ("zeptick-roundtrip-" + std::to_string(getpid()))).string();
  }();
  const std::vector<Block> blocks = parse(data, size);
  {
    zeptick::ZeptickFileWriter writer(base, 0, {1, 2, 3, 4});
    writer.writeChannelMap({{1, -1}, {-1, 1}, {2, -2}, {1000000, -1000000}});
    for (const Block& block : blocks) {
      auto* state = writer.encodeBlock(block.tags, block.begin_time, block.end_time);
      zeptick::ZeptickFileWriter::finishBlock(state);
      writer.writeBlock(state);
      writer.recycleBlock(state);
    }
  }
  const std::string file = zeptick::ZeptickFile::makeFileName(base, 0);
  zeptick::ZeptickFileReader reader(file, true);
  bool overflow = false;
  std::vector<Tag> tags;
  uint64_t overflows = 0;
  int64_t begin = 0, end = 0;
  for (const Block& block : blocks) {
    if (!reader.getBlockRange(begin, end) || begin != block.begin_time || end != block.end_time ||
        !reader.decodeBlock(tags, begin, overflows)) {
      std::abort();
    }
    const std::vector<Tag> expected = zeptick::testing::expectedAfterFile(
        block.tags, block.begin_time, {1, -1, 2, 1000000}, overflow);
    const auto same = [](const Tag& a, const Tag& b) {
      return std::tie(a.type, a.reserved, a.missed_events, a.channel, a.time) ==
             std::tie(b.type, b.reserved, b.missed_events, b.channel, b.time);
    };
    if (!std::equal(tags.begin(), tags.end(), expected.begin(), expected.end(), same)) std::abort();
  }
  if (reader.getBlockRange(begin, end)) std::abort();
  std::remove(file.c_str());
  return 0;
}
