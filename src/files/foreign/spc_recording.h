#pragma once

#include <cstdint>
#include <cstdio>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "files/foreign/foreign_recording.h"
#include "files/foreign/picosecond_scale.h"

namespace zeptick::foreign {

/// Whether `word` can open a Becker & Hickl SPC-130/140/150/830 FIFO file: the invalid flag
/// set, no other flag of a photon record, and a nonzero macrotime clock in units of 0.1 ns.
bool isSpcFirstWord(uint32_t word);
/// The settings file beside `spc_path` (same name, extension .set or .SET), if there is one.
std::optional<std::string> spcSettingsPath(const std::string& spc_path);

/// A Becker & Hickl FIFO file of 32-bit records. Times are macrotime x clock + microtime x
/// TAC bin; the TAC runs reversed, so the microtime is 4095 minus the ADC value. The TAC bin
/// comes from the .set file beside it (SP_TAC_TC, else SP_TAC_R / SP_TAC_G / 4096); without
/// one, a warning says so and photons carry their macrotime only. Each macrotime tick that
/// holds a photon is a sync tag. A record flagged GAP (the board's FIFO overflowed and lost
/// data before it) gives an error tag at its time.
class SpcRecording final : public ForeignRecording {
 public:
  /// Reads the first word and the settings; on a fault, logs it and stays closed.
  explicit SpcRecording(const std::string& path);
  ~SpcRecording() override;

 protected:
  bool decodeChunk(std::vector<Tag>& out) override;
  int64_t recordedUntil() const override { return macro_clock(accumulator); }

 private:
  nlohmann::json readSettings(const std::string& set_path);

  std::string path;
  std::FILE* file = nullptr;
  PicosecondScale macro_clock;
  std::optional<PicosecondScale> tac_bin;
  std::vector<uint32_t> records;
  uint64_t records_left = 0;
  uint64_t records_read = 0;
  bool cut_short = false;
  uint64_t accumulator = 0;  // macrotime of the overflows so far
  uint64_t last_sync = UINT64_MAX;
};

}  // namespace zeptick::foreign
