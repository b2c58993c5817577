// Feeds a PTU magic and arbitrary bytes to the PTU header parser, and those it accepts to the
// whole PTU reader: no crash, no read out of bounds, no endless loop, no allocation beyond what
// the bytes justify (scripts/fuzz limits malloc).

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "files/foreign/ptu_header.h"
#include "files/foreign/ptu_recording.h"
#include "fuzz/fuzz_input.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::vector<char> bytes(8, '\0');  // the magic, padded with NULs
  std::copy_n(zeptick::foreign::kPtuMagic, 6, bytes.begin());
  bytes.insert(bytes.end(), data, data + size);
  std::FILE* file = fmemopen(bytes.data(), bytes.size(), "rb");
  if (file == nullptr) std::abort();
  zeptick::foreign::PtuHeader header;
  std::string error;
  const bool parsed = zeptick::foreign::parsePtuHeader(file, header, error);
  std::fclose(file);
  if (parsed ? header.data_offset > bytes.size() : error.empty()) std::abort();
  (void)header.tags.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace).size();
  if (!parsed) return 0;

  // The records behind a header it accepts, through the reader that owns them.
  static zeptick::fuzz::MemoryFile records;
  zeptick::foreign::PtuRecording reader(records.fill(bytes.data(), bytes.size()));
  std::vector<zeptick::Tag> tags;
  uint64_t errors = 0;
  int64_t begin = 0, end = 0;
  while (reader.getBlockRange(begin, end)) {
    reader.decodeBlock(tags, begin, errors);
    // A record of four bytes makes at most four tags (four marker bits).
    if (tags.size() > bytes.size()) std::abort();
  }
  return 0;
}
