#pragma once

#include <array>
#include <cstdint>
#include <cstdio>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "files/block_signing.h"
#include "files/block_words.h"
#include "files/file_format.h"
#include "files/recording_source.h"
#include "zeptick/tag.h"

namespace zeptick {

/// Reads one .ztbin file block by block, holding at most one time tag block in memory.
/// It never throws on bad data: it logs the fault at error level, ends the file, and reports
/// that no block is left. A caller cannot tell an orderly end from a fault but by the log.
/// It never allocates more than the file's own bytes can justify, whatever a header claims.
/// Owned by one thread at a time.
class ZeptickFileReader final : public RecordingSource {
 public:
  /// Opens `filename` (the full name, see ZeptickFile::makeFileName) and loads blocks up to the
  /// first time tag block. With `verify`, each time tag block's digest and signature are checked
  /// against the key of setFileVerificationKey at this moment, and a failure ends the file.
  /// A file that cannot be opened has no block (see isOpen).
  ZeptickFileReader(const std::string& filename, bool verify);
  ~ZeptickFileReader() override;
  ZeptickFileReader(const ZeptickFileReader&) = delete;
  ZeptickFileReader& operator=(const ZeptickFileReader&) = delete;

  /// Whether the file could be opened.
  bool isOpen() const override { return opened; }

  /// The loaded block's span; false if no block is left.
  bool getBlockRange(int64_t& begin_time, int64_t& end_time) const override;
  /// From now on loads each time tag block as stored, leaving its unpacking, checking and
  /// decoding to takePackedBlock's caller, and holds the faults that loading finds (see
  /// takeHeldFaults) instead of logging them: a block taken before may yet fail its checks, and
  /// then the file ends there and nothing after it may be told. Only for a verifying reader.
  void deferChecks() { deferred = true; }
  /// Moves the loaded block into `block`, with the channel table and key it is to be decoded and
  /// checked with, and loads the next. False if no block is loaded.
  bool takePackedBlock(detail::PackedBlock& block);
  /// The faults that loading found since the last call, in order; with deferChecks only.
  detail::BlockFaults takeHeldFaults();
  /// Ends the file at the loaded block, as if loading it had failed, and forgets held faults:
  /// a block taken before it failed its checks.
  void endHere();
  /// Drops the loaded block and loads the next; false if no block was loaded. With
  /// deferChecks, also false if the loaded block fails its checks, which ends the file there.
  bool skipBlock() override;
  /// Replaces `tags` with the loaded block's tags, its time running from `start_time` (usually
  /// the block's begin_time), adds one to `overflows` for each overflow begin and each error,
  /// and loads the next block. False if no block was loaded (and `tags` is left alone).
  bool decodeBlock(std::vector<Tag>& tags, int64_t start_time, uint64_t& overflows) override;

  /// Text of the last configuration block read so far.
  std::string getConfiguration() const override { return configuration; }
  /// Text of the last marker block read so far.
  std::string getLastMarker() const override { return last_marker; }
  /// The other edge of `channel` as the channel maps read so far give it; CHANNEL_UNUSED if
  /// the file does not name `channel`.
  int32_t getInvertedChannel(int32_t channel) const override;
  /// The channels the channel maps read so far record, in the order of their indices.
  std::vector<int32_t> getRecordedChannels() const;
  /// The recording's identifier from the file header; zero before one was read.
  void getFileId(ZeptickFile::FileId& file_id) const override { file_id = this->file_id; }
  /// Whether a file header was read. A file without one (empty, or cut before its first
  /// block, as a full disk or a killed recorder leaves it) belongs to no recording.
  bool hasFileHeader() const { return file_header_read; }
  /// No block is left and a fault ended the file: its end block was never read, or a block
  /// taken before failed its checks (see endHere).
  bool endedEarly() const override { return !has_block && (!at_end || ended_here); }

 private:
  bool read(void* buffer, uint64_t size, uint64_t* remaining);
  template <class Container>
  bool readSized(Container& container, uint64_t count, uint64_t* remaining);
  bool readBlock();
  bool readChannelMap(uint64_t& remaining);
  bool readTimeTagBlock(uint64_t& remaining);
  bool unpackLoaded();
  void fault(const char* text);
  bool available(uint64_t size);
  void refreshFileSize();
  void load();
  void close();

  uint32_t alignment = 0;
  ZeptickFile::FileId file_id{};
  bool file_header_read = false;
  uint32_t version = 0;
  bool verify = false;
  bool deferred = false;     // see deferChecks
  bool packed = false;       // the loaded block is in `compressed` as stored, unchecked
  detail::BlockFaults held;  // faults found in loading, with deferChecks
  std::shared_ptr<const detail::VerifyingKey> key;
  std::string configuration;
  std::string last_marker;
  bool at_end = false;
  bool ended_here = false;  // see endHere: a block taken before failed, whatever was read after
  detail::ChannelTable channels;
  std::map<int32_t, int32_t> inverted_channels;
  bool has_block = false;
  ZeptickFile::TimeTagBlockHeader block_header{};
  std::vector<ZeptickFile::ShortTag> words;
  std::vector<char> compressed;

  bool opened = false;
  std::FILE* file = nullptr;
  std::vector<char> file_buffer;
  uint64_t position = 0;   // bytes consumed from the start of the file
  uint64_t file_size = 0;  // as last looked up; refreshed before a read would pass it
};

}  // namespace zeptick
