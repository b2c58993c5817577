#include "files/zeptick_file_reader.h"

namespace zeptick {

// Placeholder bodies: the interface is fixed, the implementation follows.

ZeptickFileReader::ZeptickFileReader(const std::string&, bool verify) : verify(verify) {
  channels.fill(CHANNEL_UNUSED);
}

ZeptickFileReader::~ZeptickFileReader() = default;

bool ZeptickFileReader::getBlockRange(int64_t&, int64_t&) const { return false; }
bool ZeptickFileReader::skipBlock() { return false; }
bool ZeptickFileReader::decodeBlock(std::vector<Tag>&, int64_t, uint64_t&) { return false; }

int32_t ZeptickFileReader::getInvertedChannel(int32_t channel) const {
  auto found = inverted_channels.find(channel);
  return found == inverted_channels.end() ? CHANNEL_UNUSED : found->second;
}

}  // namespace zeptick
