#pragma once

// A deliberately plain decoder of board words: it widens ticks with the rollover words and places
// an event in the middle of its fine bin, using the board's true bin edges.

#include <cstdint>
#include <initializer_list>
#include <stdexcept>
#include <vector>

#include "emulator/stream/stream_model.h"

namespace zeptick::emulator::testing {

struct Decoded {
  enum class Kind { Event, Missed, OverflowBegin, OverflowEnd, Error, Rollover, Filler };
  Kind kind;
  int index = -1;       // hardware index of events and missed counts
  int64_t clock = 0;    // widened cycle: events, overflow words; rollovers: the new period start
  int bin = 0;          // fine bin of events
  uint32_t missed = 0;  // events counted by a missed-events word
  int fence = -1;       // fence byte of kind-1 rollovers
  int64_t periods = 0;  // rollover periods that a rollover word adds
};

class ReferenceDecoder {
 public:
  std::vector<Decoded> decode(const std::vector<uint32_t>& words) {
    std::vector<Decoded> out;
    for (uint32_t w : words) {
      const int bin = static_cast<int>((w >> 16) & 0xFF);
      const int code = static_cast<int>((w >> 24) & 0x3F);
      const int kind = static_cast<int>(w >> 30);
      Decoded d{Decoded::Kind::Filler};
      if (kind != 0 && code == 62) {
        d.kind = Decoded::Kind::Rollover;
        d.periods = kind == 1 ? 1 : kind == 2 ? bin : bin * 256;
        if (kind == 1) d.fence = bin;
        base_ += d.periods * 65536;
        d.clock = base_;
      } else if (kind != 0 && code == 63) {
        if (kind == 1) base_ += 65536;
        d.kind = kind == 1   ? Decoded::Kind::Error
                 : kind == 2 ? Decoded::Kind::OverflowBegin
                             : Decoded::Kind::OverflowEnd;
        d.clock = base_ + (w & 0xFFFF);
      } else if (kind != 0 && code < 58) {
        d.kind = kind == 1 ? Decoded::Kind::Event : Decoded::Kind::Missed;
        d.index = code;
        d.clock = base_ + (w & 0xFFFF);
        d.bin = bin;
        if (kind != 1) d.missed = static_cast<uint32_t>(kind == 2 ? bin : bin * 256);
      } else if (kind != 0) {
        throw std::runtime_error("a board without a Synchronizer sent a sync word");
      }
      out.push_back(d);
    }
    return out;
  }
  int64_t base() const { return base_; }

 private:
  int64_t base_ = 0;
};

inline std::vector<uint32_t> readWords(StreamModel& model, size_t count) {
  std::vector<uint32_t> words(count);
  const long got =
      model.read(reinterpret_cast<unsigned char*>(words.data()), static_cast<long>(count * 4));
  if (got != static_cast<long>(count * 4)) throw std::runtime_error("short read");
  return words;
}

/// The decoded words of a fresh model before cycle `clocks`.
inline std::vector<Decoded> readFor(StreamModel& model, int64_t clocks) {
  ReferenceDecoder decoder;
  std::vector<Decoded> all;
  while (decoder.base() < clocks) {
    std::vector<Decoded> part = decoder.decode(readWords(model, 4096));
    all.insert(all.end(), part.begin(), part.end());
  }
  std::erase_if(all, [clocks](const Decoded& d) { return d.clock >= clocks; });
  return all;
}

inline std::vector<Decoded> only(const std::vector<Decoded>& all, Decoded::Kind kind,
                                 int index = -1) {
  std::vector<Decoded> out;
  for (const Decoded& d : all) {
    if (d.kind == kind && (index < 0 || d.index == index)) out.push_back(d);
  }
  return out;
}

/// The times in ps of the events of `index`: cycle plus the middle of the fine bin.
inline std::vector<double> eventTimes(const StreamModel& model, const std::vector<Decoded>& all,
                                      int index, int64_t ps) {
  const std::vector<int64_t> upper = model.binUpperEdges(index);
  std::vector<double> times;
  for (const Decoded& d : only(all, Decoded::Kind::Event, index)) {
    const int64_t lower = d.bin == 0 ? 0 : upper[static_cast<size_t>(d.bin) - 1];
    times.push_back(static_cast<double>(d.clock * ps) +
                    0.5 * static_cast<double>(lower + upper[static_cast<size_t>(d.bin)]));
  }
  return times;
}

inline StreamParameters ultra(bool paced = false) {
  StreamParameters p;
  p.model = 36, p.inputs = 18, p.ps_per_clock = 2500, p.bin_count = 256;
  p.seed = 7, p.paced = paced, p.usb_words_per_second = 1e8;
  return p;
}

/// The listed hardware indices enabled, triggers at `level`, no buffer limit, other defaults.
inline FirmwareSetup enable(const StreamParameters& p, std::initializer_list<int> indices,
                            double level = 0.5) {
  FirmwareSetup s{.channels = std::vector<ChannelSetup>(static_cast<size_t>(2 * p.inputs)),
                  .trigger_volts = std::vector<double>(static_cast<size_t>(p.inputs), level),
                  .started = true};
  for (int i : indices) s.channels[static_cast<size_t>(i)].enabled = true;
  return s;
}

}  // namespace zeptick::emulator::testing
