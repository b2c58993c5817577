#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "files/recording_source.h"

namespace zeptick::foreign {

/// Turns a maker's record stream into contiguous blocks of time-ordered tags. A derived reader
/// decodes a bounded chunk of records at a time into tags with times in ps from the start of
/// the recording; this class orders them, cuts blocks, and hands them out. Memory stays at one
/// chunk whatever the file's size.
///
/// A block ends at the time of its last tags, which wait for the next block: a tag of the next
/// chunk at that same time would otherwise fall before its block. A tag that a format records
/// slightly out of order (markers) and that falls before the block it arrives in is moved to
/// that block's begin.
class ForeignRecording : public RecordingSource {
 public:
  bool isOpen() const override { return opened; }
  bool getBlockRange(int64_t& begin_time, int64_t& end_time) const override;
  bool skipBlock() override;
  bool decodeBlock(std::vector<Tag>& tags, int64_t start_time, uint64_t& overflows) override;
  std::string getConfiguration() const override { return configuration; }
  std::string getLastMarker() const override { return {}; }
  /// Other makers record no edges of an input: CHANNEL_UNUSED for every channel.
  int32_t getInvertedChannel(int32_t) const override { return CHANNEL_UNUSED; }
  void getFileId(ZeptickFile::FileId& id) const override { id = file_id; }

 protected:
  ForeignRecording();

  /// Appends the tags of the next chunk of records to `out`. Returns false once no record is
  /// left or a fault was logged; the tags appended in that call still count.
  virtual bool decodeChunk(std::vector<Tag>& out) = 0;
  /// The time the records reached so far, overflow records included; the last block lasts at
  /// least until then.
  virtual int64_t recordedUntil() const = 0;

  /// Called by a derived constructor once its header is understood: loads the first block.
  void start(std::string settings);

 private:
  void load();

  bool opened = false;
  std::string configuration;
  ZeptickFile::FileId file_id{};
  std::vector<Tag> block;
  std::vector<Tag> waiting;  // the last tags of the previous chunk, at one time
  int64_t begin = 0;
  int64_t end = 0;
  bool has_block = false;
  bool exhausted = false;
};

}  // namespace zeptick::foreign
