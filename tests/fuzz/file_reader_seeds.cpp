// Writes the seed corpus of file_reader_fuzzer: small valid files that reach every kind of
// block, raw and compressed data, overflows, and high-bit time words.
// Usage: file_reader_seeds <directory>

#include <cstdint>
#include <string>
#include <vector>

#include "files/zeptick_file_writer.h"

namespace {

using zeptick::Tag;

void writeSeed(const std::string& base, const std::vector<std::vector<Tag>>& blocks,
               bool with_marker) {
  zeptick::ZeptickFileWriter writer(base, 0, {1, 2, 3, 4});
  writer.writeConfiguration("{\"seed\":true}");
  writer.writeChannelMap({{1, -1}, {2, -2}, {-1, 1}});
  int64_t begin = 0;
  for (const std::vector<Tag>& tags : blocks) {
    const int64_t end = (tags.empty() ? begin : tags.back().time) + 1000;
    auto* state = writer.encodeBlock(tags, begin, end);
    zeptick::ZeptickFileWriter::finishBlock(state);
    writer.writeBlock(state);
    writer.recycleBlock(state);
    if (with_marker) writer.writeMarker("marker");
    begin = end;
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) return 2;
  const std::string directory = argv[1];
  const Tag::Type time_tag = Tag::Type::TimeTag;
  const int32_t unused = zeptick::CHANNEL_UNUSED;

  writeSeed(directory + "/empty_blocks", {{}, {}}, false);
  writeSeed(directory + "/small",
            {{{time_tag, 0, 0, 1, 10}, {time_tag, 0, 0, 2, 20}, {time_tag, 0, 0, -1, 20}},
             {{Tag::Type::Error, 0, 0, unused, 1500}}},
            true);
  writeSeed(directory + "/overflow",
            {{{Tag::Type::OverflowBegin, 0, 0, unused, 5},
              {Tag::Type::MissedEvents, 0, 300, 1, 5},
              {Tag::Type::OverflowEnd, 0, 0, unused, 9}},
             {{time_tag, 0, 0, 1, (int64_t{1} << 24) + 2000},
              {time_tag, 0, 0, 2, (int64_t{1} << 49) + 7}}},
            false);
  std::vector<Tag> many;  // enough words to be stored compressed
  for (int64_t i = 0; i < 400; ++i)
    many.push_back({time_tag, 0, 0, static_cast<int32_t>(1 + i % 2), i * 3});
  writeSeed(directory + "/compressed", {many}, false);
  return 0;
}
