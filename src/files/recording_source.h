#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "files/file_format.h"
#include "zeptick/tag.h"

namespace zeptick {

/// A recording read block by block, at most one block in memory: our own .ztbin files and the
/// recordings of other instruments alike. Bad data is logged at error level and ends the
/// recording; nothing here throws after construction. Blocks follow each other without a gap
/// (each begins where the one before ended) unless the recording itself has one. Owned by one
/// thread at a time.
class RecordingSource {
 public:
  virtual ~RecordingSource() = default;

  /// Whether the file could be opened (and, for other makers' files, its header understood).
  virtual bool isOpen() const = 0;
  /// The loaded block's span in ps; false if no block is left.
  virtual bool getBlockRange(int64_t& begin_time, int64_t& end_time) const = 0;
  /// Drops the loaded block and loads the next; false if no block was loaded.
  virtual bool skipBlock() = 0;
  /// Replaces `tags` with the loaded block's tags, its time running from `start_time` (the
  /// block's begin_time leaves times as recorded), adds lost-data events to `overflows`, and
  /// loads the next block. False if no block was loaded (and `tags` is left alone).
  virtual bool decodeBlock(std::vector<Tag>& tags, int64_t start_time, uint64_t& overflows) = 0;
  /// The recording's settings as JSON text (empty if none were read).
  virtual std::string getConfiguration() const = 0;
  /// Text of the last marker block read so far (empty for other makers' files).
  virtual std::string getLastMarker() const = 0;
  /// The other edge of `channel`; CHANNEL_UNUSED if the recording does not name one.
  virtual int32_t getInvertedChannel(int32_t channel) const = 0;
  /// The recording's identifier: blocks of different identifiers do not join.
  virtual void getFileId(ZeptickFile::FileId& file_id) const = 0;
  /// Once no block is left: true if reading stopped at a fault rather than at the file's end.
  virtual bool endedEarly() const { return false; }
};

}  // namespace zeptick
