#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "zeptick/iterator_base.h"
#include "zeptick/tag.h"

namespace zeptick::reliability {

/// What one pass over a tag stream saw: counts, first and last times per
/// channel, and an order-sensitive hash of every tag. Times are taken relative
/// to the stream's first tag, because the replay tagger rebases a recording
/// onto its own clock; `origin` keeps the absolute time of that first tag.
class StreamDigest {
 public:
  void add(const Tag& tag);
  void add(const std::vector<Tag>& tags) {
    for (const Tag& tag : tags) add(tag);
  }

  struct Channel {
    int64_t tags = 0;
    int64_t missed = 0;
    int64_t first = 0;
    int64_t last = 0;
  };
  int64_t tags() const { return total; }
  int64_t origin() const { return first_time; }
  uint64_t hash() const { return rolling; }
  int64_t errors() const { return error_tags; }
  int64_t overflows() const { return overflow_begins; }
  int64_t missedEvents() const;
  const std::map<int32_t, Channel>& channels() const { return per_channel; }

  /// Empty if `other` saw the same stream; otherwise one line per difference,
  /// naming `name` and `other_name`.
  std::vector<std::string> differences(const StreamDigest& other, const std::string& name,
                                       const std::string& other_name) const;

 private:
  int64_t total = 0;
  int64_t first_time = 0;
  uint64_t rolling = 0x6a09e667f3bcc908ULL;
  int64_t error_tags = 0;
  int64_t overflow_begins = 0;
  int64_t overflow_ends = 0;
  std::map<int32_t, Channel> per_channel;
};

/// A measurement that digests every block it is given, in stream order.
class DigestMeasurement : public IteratorBase {
 public:
  /// Called under the measurement's lock after each block that held tags.
  using BlockHook = std::function<void(const StreamDigest&)>;
  DigestMeasurement(ZeptickBase* tagger, const std::vector<int>& channels,
                    BlockHook after_block = nullptr);
  ~DigestMeasurement() override;

  StreamDigest digest();
  int64_t tags();
  /// End time of the last block seen.
  int64_t streamTime();

 protected:
  bool next_impl(std::vector<Tag>& tags, int64_t begin_time, int64_t end_time) override;
  void clear_impl() override;

 private:
  StreamDigest seen;
  int64_t last_end = 0;
  BlockHook after_block;
};

}  // namespace zeptick::reliability
