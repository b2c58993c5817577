#pragma once

#include <cstdint>
#include <fstream>
#include <string>
#include <vector>

#include "zeptick/iterator_base.h"

namespace zeptick {

/// Writes the raw 16-byte Tag records of the stream to one file, as they
/// stand. Deprecated: FileWriter records compactly, verifiably and in split
/// files. Errors and overflow marks are always written; time tags only of the
/// given channels (all with an empty list). After `max_tags` tags (negative:
/// no limit) it closes the file and writes nothing more; isRunning() stays
/// true until stop(), and a start() after that stop() begins a new file.
/// A file that cannot be opened is not reported.
class ZEPTICK_API Dump : public IteratorBase {
 public:
  Dump(ZeptickBase* tagger, const std::string& filename, int64_t max_tags = -1,
       std::vector<int> channels = {});
  ~Dump() override;

 protected:
  void clear_impl() override;
  void on_start() override;
  void on_stop() override;
  bool next_impl(std::vector<Tag>& tags, int64_t begin_time, int64_t end_time) override;

 private:
  bool wanted(const Tag& tag) const;

  std::ofstream output;
  std::string filename;
  int64_t count = 0;
  int64_t max_tags;
  std::vector<int> channels;
  std::vector<Tag> selected;
  std::vector<char> stream_buffer;
  bool open = false;  // between on_start and on_stop
};

}  // namespace zeptick
