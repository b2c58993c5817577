#pragma once

// Decoding of PicoQuant's 32-bit TTTR records into tags. Two layouts per mode: the PicoHarp 300
// one, and the HydraHarp one that the TimeHarp 260, MultiHarp and the "Generic" type share.
// The HydraHarp V1 types differ only in their overflow rule.

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "files/foreign/picosecond_scale.h"
#include "zeptick/tag.h"

namespace zeptick::foreign {

enum class PtuLayout { PicoHarpT2, PicoHarpT3, HydraHarpT2, HydraHarpT3 };

/// The layout of a TTResultFormat_TTTRRecType code.
struct PtuRecordType {
  PtuLayout layout;
  bool version1;     ///< HydraHarp V1: one overflow per record, T2 period 33,552,000
  const char* name;  ///< for the settings, e.g. "HydraHarp V2 T3"
};

/// The record type of `code`; nothing for codes this reader does not know.
std::optional<PtuRecordType> ptuRecordType(int64_t code);

/// Decoder state carried from one chunk of records to the next.
class PtuRecordDecoder {
 public:
  /// `global`: T2 time unit or T3 sync period; `bin`: T3 dtime bin (unused in T2).
  PtuRecordDecoder(PtuRecordType type, PicosecondScale global, PicosecondScale bin)
      : type(type), global(global), bin(bin) {}

  /// Appends the tags of `count` records to `out`, in record order.
  void decode(const uint32_t* records, size_t count, std::vector<Tag>& out);
  /// The time the accumulated overflows stand for, in ps.
  int64_t overflowTime() const { return global(accumulator); }

 private:
  template <PtuLayout layout>
  void decodeAs(const uint32_t* records, size_t count, std::vector<Tag>& out);
  void photonT3(std::vector<Tag>& out, int32_t channel, uint64_t sync, uint32_t dtime);

  PtuRecordType type;
  PicosecondScale global;
  PicosecondScale bin;
  uint64_t accumulator = 0;         // in units of `global`
  uint64_t last_sync = UINT64_MAX;  // T3: the sync last given a tag
};

}  // namespace zeptick::foreign
