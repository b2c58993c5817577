#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <cstdio>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "files/block_signing.h"
#include "files/file_format.h"
#include "zeptick/tag.h"

namespace zeptick {

/// Writes one .ztbin file. The work for a time tag block is cut in three so that the costly
/// part runs on several workers at once:
///   encodeBlock   cheap, serial: under the owning measurement's lock, in stream order;
///   finishBlock   costly (LZ4, SHA-1, ECDSA): without any lock, in parallel with its like;
///   writeBlock    cheap, ordered: strictly in the order of encodeBlock (an ordered section);
///   recycleBlock  under the measurement's lock again.
/// Configuration, channel map and markers are written directly, under the measurement's lock.
/// Write failures throw std::runtime_error("FileWriter: Error on writing to the disk.").
/// A file split may replace the writer while blocks are between encodeBlock and writeBlock:
/// states live in a pool that successive writers share (see BlockPool), and an owner that holds
/// its writers by shared_ptr can let an in-flight block still reach the file it was encoded for.
class ZeptickFileWriter {
 public:
  /// One block on its way through the stages. Vectors keep their capacity across reuse.
  struct TimeTagBlockState {
    ZeptickFile::TimeTagBlockHeader header{};
    std::vector<ZeptickFile::ShortTag> data;        ///< the uncompressed words
    std::vector<char> compressed;                   ///< output of the compressor
    bool is_compressed = false;                     ///< `compressed` holds the stored bytes
    bool overflow_marked = false;                   ///< the block holds an overflow begin or end
    bool overflow_at_end = false;                   ///< the encoding ended inside an overflow
    std::shared_ptr<const detail::SigningKey> key;  ///< the encoding writer's key
  };

  /// Owns every block state. Successive writers of one recording share a pool, so that a
  /// block encoded by one writer can be finished and written after a file split replaced it.
  /// Guarded by the owning measurement's lock (encodeBlock and recycleBlock run under it).
  class BlockPool {
   public:
    TimeTagBlockState* take();
    void give(TimeTagBlockState* state);
    /// States ever made; stays flat in a steady stream.
    size_t size() const { return blocks.size(); }

   private:
    std::deque<TimeTagBlockState> blocks;  // addresses stay valid as it grows
    std::vector<TimeTagBlockState*> free_blocks;
  };

  /// Opens makeFileName(filename, split_index), truncating any old file, and writes the file
  /// header with `file_id`. Block states come from `pool`, or a new pool if it is null.
  /// Signs with the key of setFileSigningKey at this moment (the built-in one by default).
  /// Throws std::runtime_error("FileWriter: Error on opening the file '<filename>' for
  /// writing.") naming the base name as given.
  ZeptickFileWriter(const std::string& filename, uint32_t split_index,
                    const ZeptickFile::FileId& file_id, std::shared_ptr<BlockPool> pool = nullptr);
  /// Writes the end block and closes the file. A write failure here is logged, not thrown.
  ~ZeptickFileWriter();
  ZeptickFileWriter(const ZeptickFileWriter&) = delete;
  ZeptickFileWriter& operator=(const ZeptickFileWriter&) = delete;

  /// Writes the tagger's configuration text as a BLOCK_JSON_CONFIG.
  void writeConfiguration(const std::string& text);
  /// Numbers the channels in order of first appearance (a repeated channel keeps its first
  /// number), writes the map and encodes later blocks with it. Throws std::runtime_error("Too
  /// many channels. ...") when a 252nd distinct channel would need a number.
  void writeChannelMap(const std::vector<std::pair<int32_t, int32_t>>& channels);
  /// Writes `text` as a BLOCK_LAST_MARKER.
  void writeMarker(const std::string& text);

  /// Encodes a sorted block into short tags in a pooled state and returns it; the state stays
  /// valid until recycleBlock. REQUIRES: the owning measurement's lock.
  TimeTagBlockState* encodeBlock(const std::vector<Tag>& tags, int64_t begin_time,
                                 int64_t end_time);
  /// Compresses, hashes and signs `state`. Touches nothing but `state`, so it may run on any
  /// number of threads at once, without a lock, even after the encoding writer is gone.
  static void finishBlock(TimeTagBlockState* state);
  /// Appends the finished block to this file. Blocks land in the order of the calls: make them
  /// in encoding order (an ordered section). Safe against concurrent writeMarker calls.
  void writeBlock(TimeTagBlockState* state);
  /// Empties `state` and returns it to its pool. REQUIRES: the owning measurement's lock.
  void recycleBlock(TimeTagBlockState* state);

  /// Every byte handed to the file so far. May be read without any lock.
  uint64_t getBytesWritten() const { return bytes_written.load(std::memory_order_relaxed); }
  /// Words written that stand for a tag. REQUIRES: the owning measurement's lock.
  uint64_t getEventsWritten() const { return events_written; }
  /// The pool to hand to the next writer of the same recording.
  const std::shared_ptr<BlockPool>& getBlockPool() const { return pool; }

 private:
  void writeBytes(const void* data, size_t size);       // REQUIRES: file_mutex
  void writeBlockHeader(uint32_t type, uint32_t size);  // REQUIRES: file_mutex
  void writePadding(uint64_t payload_size);             // REQUIRES: file_mutex
  void writeText(uint32_t type, const std::string& text);

  uint32_t lookupIndex(int32_t channel) const;

  // Channels near zero (the inputs) are looked up by table, others by binary search, since a
  // map lookup per tag would dominate the encoding.
  static constexpr int32_t kDirectChannels = 256;
  static constexpr uint8_t kNoIndex = 0xFF;  // never an index: they end at MAX_CHANNEL_INDEX

  std::map<int32_t, uint32_t> channel_index;
  std::array<uint8_t, 2 * kDirectChannels> direct_index;
  std::vector<std::pair<int32_t, uint32_t>> far_index;  // sorted by channel
  bool in_overflow = false;
  std::atomic<uint64_t> bytes_written{0};
  uint64_t events_written = 0;
  std::shared_ptr<BlockPool> pool;
  std::shared_ptr<const detail::SigningKey> key;

  std::mutex file_mutex;  // one block, text or header at a time reaches the file
  std::FILE* file = nullptr;
  std::unique_ptr<char[]> file_buffer;  // left uninitialised: stdio fills it before use
};

}  // namespace zeptick
