#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <vector>

#include "zeptick/iterator_base.h"

namespace zeptick {

/// An oscilloscope view of edges: on a tag of `trigger_channel` (pass the rising or the falling
/// channel of an input to pick the edge) it opens a trace of `window` ps and records, for each
/// input in `channels`, the rising and falling edges inside [trigger, trigger + window) as
/// steps of a logic level: (time after the trigger, 1) for a rising edge, (time, 0) for a
/// falling one. Every trace of every input starts with a step at time 0 holding the level
/// after that input's last edge up to the trigger's time (-1 while none has been seen), so a
/// trace draws as a logic line from its first step on.
///
/// One trace is open at a time: triggers inside an open trace are ignored. After `n_traces`
/// traces the measurement is ready() and records no more until clear(). A trace that meets an
/// overflow or an error is thrown away (and the levels become unknown), since edges are missing
/// from it; the next trigger opens a new one.
class ZEPTICK_API Scope : public IteratorBase {
 public:
  /// `channels` are inputs given by their rising-edge channel numbers (the falling edges are
  /// found with getInvertedChannel). Throws std::invalid_argument if `window` < 1,
  /// `n_traces` < 1, `trigger_channel` is unused or `channels` is empty.
  Scope(ZeptickBase* tagger, std::vector<int> channels, int trigger_channel, int64_t window,
        int32_t n_traces = 1);
  ~Scope() override;

  /// The steps of input `channels[index]` for every complete trace, as rows of (trace,
  /// time after the trigger in ps, level), in trace and time order. `array_out(rows, 3)` is
  /// called once, with the lock held, so that the row count stays true: it must not call
  /// back into this measurement. Throws std::invalid_argument for an index out of range.
  void getData(size_t index, std::function<int64_t*(size_t, size_t)> array_out);
  /// Stream time of each complete trace's trigger, in ps. `array_out(traces)` is called once,
  /// with the lock held.
  void getTriggerTimes(std::function<int64_t*(size_t)> array_out);
  /// True once `n_traces` traces are complete.
  bool ready();

 protected:
  void clear_impl() override;
  bool next_impl(std::vector<Tag>& tags, int64_t begin_time, int64_t end_time) override;

 private:
  struct Step {
    int32_t trace;
    int64_t time;
    int8_t level;
  };

  void openTrace(int64_t time);
  void closeTrace();
  void forgetTrace();
  void onEdge(const Tag& tag, size_t input, int8_t level);

  const std::vector<int> channels;
  std::vector<int> falling;  // the inverted channel of each input
  const int trigger_channel;
  const int64_t window;
  const int32_t n_traces;

  std::vector<std::vector<Step>> steps;  // per input, complete traces only
  std::vector<std::vector<Step>> open_steps;
  std::vector<int64_t> trigger_times;
  std::vector<int8_t> levels;  // per input, after its last edge; -1 unknown
  bool open = false;
  int64_t trigger_time = 0;
};

}  // namespace zeptick
