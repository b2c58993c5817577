// Writes the seed corpus of file_reader_fuzzer: small valid files that reach every kind of
// block, raw and compressed data, overflows, and high-bit time words.
// Usage: file_reader_seeds <directory>

#include <cstdint>
#include <string>
#include <vector>

#include "files/zeptick_file_writer.h"

namespace {

using zeptick::Tag;

Tag timeTag(int32_t channel, int64_t time) { return {Tag::Type::TimeTag, 0, 0, channel, time}; }
Tag marker(Tag::Type type, int64_t time) { return {type, 0, 0, zeptick::CHANNEL_UNUSED, time}; }

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

  writeSeed(directory + "/empty_blocks", {{}, {}}, false);
  writeSeed(directory + "/small",
            {{timeTag(1, 10), timeTag(2, 20), timeTag(-1, 20)}, {marker(Tag::Type::Error, 1500)}},
            true);
  writeSeed(directory + "/overflow",
            {{marker(Tag::Type::OverflowBegin, 5),
              {Tag::Type::MissedEvents, 0, 300, 1, 5},
              marker(Tag::Type::OverflowEnd, 9)},
             {timeTag(1, (int64_t{1} << 24) + 2000), timeTag(2, (int64_t{1} << 49) + 7)}},
            false);
  std::vector<Tag> many;  // enough words to be stored compressed
  for (int64_t i = 0; i < 400; ++i) many.push_back(timeTag(static_cast<int32_t>(1 + i % 2), i * 3));
  writeSeed(directory + "/compressed", {many}, false);
  return 0;
}
