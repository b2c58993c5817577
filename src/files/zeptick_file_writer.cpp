#include "files/zeptick_file_writer.h"

#include <stdexcept>

namespace zeptick {

// Placeholder bodies: the interface is fixed, the implementation follows.

ZeptickFileWriter::TimeTagBlockState* ZeptickFileWriter::BlockPool::take() {
  if (free_blocks.empty()) return &blocks.emplace_back();
  TimeTagBlockState* state = free_blocks.back();
  free_blocks.pop_back();
  return state;
}

void ZeptickFileWriter::BlockPool::give(TimeTagBlockState* state) { free_blocks.push_back(state); }

ZeptickFileWriter::ZeptickFileWriter(const std::string& filename, uint32_t,
                                     const ZeptickFile::FileId&, std::shared_ptr<BlockPool> pool)
    : pool(pool ? std::move(pool) : std::make_shared<BlockPool>()) {
  throw std::runtime_error("FileWriter: Error on opening the file '" + filename + "' for writing.");
}

ZeptickFileWriter::~ZeptickFileWriter() = default;

void ZeptickFileWriter::writeConfiguration(const std::string&) {}
void ZeptickFileWriter::writeChannelMap(const std::vector<std::pair<int32_t, int32_t>>&) {}
void ZeptickFileWriter::writeMarker(const std::string&) {}

ZeptickFileWriter::TimeTagBlockState* ZeptickFileWriter::encodeBlock(const std::vector<Tag>&,
                                                                     int64_t, int64_t) {
  return pool->take();
}

void ZeptickFileWriter::finishBlock(TimeTagBlockState*) {}
void ZeptickFileWriter::writeBlock(TimeTagBlockState*) {}
void ZeptickFileWriter::recycleBlock(TimeTagBlockState* state) { pool->give(state); }

}  // namespace zeptick
