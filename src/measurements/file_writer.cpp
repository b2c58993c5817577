#include "zeptick/file_writer.h"

#include <random>
#include <stdexcept>

#include "files/file_format.h"
#include "files/zeptick_file_writer.h"

namespace zeptick {

FileWriter::FileWriter(ZeptickBase* tagger, const std::string& filename, std::vector<int> channels)
    : IteratorBase(tagger), filename(filename) {
  if (channels.size() > static_cast<size_t>(ZeptickFile::MAX_CHANNELS)) {
    throw std::runtime_error("Too many channels. This format does not support more than " +
                             std::to_string(ZeptickFile::MAX_CHANNELS) + " channels.");
  }
  if (channels.empty()) {
    throw std::runtime_error(
        "FileWriter is called without any channels. This would result in an empty file.");
  }
  for (int channel : channels) {
    if (tagger->isUnusedChannel(channel)) continue;
    this->channels.emplace_back(channel, tagger->getInvertedChannel(channel));
    registerChannel(channel);
  }
  std::random_device random;
  for (uint32_t& word : file_id) word = random();
  clear();
  finishInitialization();
}

FileWriter::~FileWriter() { stop(); }

void FileWriter::split(const std::string& new_filename) {
  auto guard = getLock();
  if (!new_filename.empty() && new_filename != filename) {
    filename = new_filename;
    file_counter = 0;
  }
  if (writer) on_start();
}

void FileWriter::setMaxFileSize(int64_t bytes) {
  auto guard = getLock();
  max_file_size = bytes;
}

int64_t FileWriter::getMaxFileSize() {
  auto guard = getLock();
  return max_file_size;
}

int64_t FileWriter::getTotalEvents() {
  auto guard = getLock();
  int64_t events = total_events;
  if (writer) events += static_cast<int64_t>(writer->getEventsWritten());
  for (const auto& old : retired) events += static_cast<int64_t>(old->getEventsWritten());
  return events;
}

int64_t FileWriter::getTotalSize() {
  auto guard = getLock();
  int64_t size = total_size;
  if (writer) size += static_cast<int64_t>(writer->getBytesWritten());
  for (const auto& old : retired) size += static_cast<int64_t>(old->getBytesWritten());
  return size;
}

void FileWriter::setMarker(const std::string& marker) {
  auto guard = getLock();
  // A stopped writer has no file; the marker has nowhere to go.
  if (writer) writer->writeMarker(marker);
}

void FileWriter::clear_impl() {
  // A clear starts a new file of the same recording; nothing written is undone.
  if (writer) on_start();
}

void FileWriter::on_start() {
  std::shared_ptr<ZeptickFileWriter::BlockPool> pool;
  if (writer) pool = writer->getBlockPool();
  auto next = std::make_shared<ZeptickFileWriter>(filename, file_counter, file_id, pool);
  ++file_counter;
  retireWriter();
  writer = std::move(next);
  ZeptickBase* tagger = getTagger();
  writer->writeConfiguration(tagger != nullptr ? tagger->getConfiguration() : std::string());
  writer->writeChannelMap(channels);
  // File 0 of a recording holds only the configuration and the channel map.
  if (file_counter == 1) on_start();
}

void FileWriter::on_stop() { retireWriter(); }

// A worker between unlock() and lock() in next_impl still holds the writer that
// encoded its block and writes the block to that writer's file. So a writer
// replaced by a rollover, split or clear stays open here until every such block
// is on disk, and only then is closed. Blocks reach the disk in ticket order, so
// the old file receives all of its blocks before the new file gets its first.
void FileWriter::retireWriter() {
  if (writer) retired.push_back(std::move(writer));
  writer.reset();
  closeIdleWriters();
}

void FileWriter::closeIdleWriters() {
  // Every copy of a writer is made and dropped under the lock, so the count is stable here.
  std::erase_if(retired, [this](const std::shared_ptr<ZeptickFileWriter>& old) {
    if (old.use_count() > 1) return false;
    total_events += static_cast<int64_t>(old->getEventsWritten());
    // The end block its destructor adds, so that the total matches the files on disk.
    total_size += static_cast<int64_t>(old->getBytesWritten() + sizeof(ZeptickFile::BlockHeader));
    return true;  // the last reference: its destructor ends and closes the file
  });
}

bool FileWriter::next_impl(std::vector<Tag>& tags, int64_t begin_time, int64_t end_time) {
  // Unsigned, so that a negative limit never rolls over. Not inside an overflow:
  // a new file starts out of overflow, and would drop the span's missed events.
  if (writer && writer->getBytesWritten() > static_cast<uint64_t>(max_file_size) &&
      !stream_in_overflow) {
    on_start();
  }
  if (!writer) return false;
  std::shared_ptr<ZeptickFileWriter> encoder = writer;
  ZeptickFileWriter::TimeTagBlockState* state = encoder->encodeBlock(tags, begin_time, end_time);
  // Read off the encoding rather than by a second scan of the block.
  if (state->overflow_marked) stream_in_overflow = state->overflow_at_end;
  OrderedPipeline pipeline;
  OrderedBarrier::OrderInstance turn = parallelize(pipeline);
  unlock();
  bool has_turn = false;
  try {
    ZeptickFileWriter::finishBlock(state);
    turn.sync();
    has_turn = true;
    encoder->writeBlock(state);
  } catch (...) {
    // The blocks behind this one must still get their turn, and next_impl returns locked.
    if (!has_turn) turn.sync();
    lock();
    encoder->recycleBlock(state);
    encoder.reset();
    closeIdleWriters();
    throw;
  }
  lock();
  turn.release();
  encoder->recycleBlock(state);
  encoder.reset();
  closeIdleWriters();
  return false;
}

}  // namespace zeptick
