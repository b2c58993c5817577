#include "emulator/stream/stream_engine.h"

#include <algorithm>
#include <limits>
#include <stdexcept>
#include <string>

#include <nlohmann/json.hpp>

#include "emulator/stream/source_config.h"

namespace zeptick::emulator {
namespace {

constexpr int64_t kNoTime = std::numeric_limits<int64_t>::max();
constexpr int64_t kRebaseClocks = int64_t{1} << 40;
constexpr int64_t kMinWindowClocks = 256;
// Windows aim at about this many edges: large enough to amortise the per-window
// work, small enough for the records to stay in the first-level cache.
constexpr double kEdgesPerWindow = 1024;
constexpr int kMaxHardwareIndices = 58;

// Seed streams: sources count from 0, then the test signal and the bin profiles.
constexpr uint64_t kTestSignalStream = 1u << 20;
// The test oscillator runs 0.32 % fast against the divided sampling clock: 628.0065 ns
// instead of 630 ns at the default divider, so successive edges step 506.5 ps
// through a 2500 ps clock period.
constexpr double kTestOscillatorRatio = 628006.5 / 630000.0;
constexpr double kTestSignalJitterPs = 3.0;
constexpr uint64_t kProfileStream = 2u << 20;

const StreamParameters& validated(const StreamParameters& p) {
  if (p.model != 4 && p.model != 36) {
    throw std::invalid_argument("emulated board: model must be 4 or 36, not " +
                                std::to_string(p.model));
  }
  if (p.inputs < 1 || 2 * p.inputs > kMaxHardwareIndices) {
    throw std::invalid_argument("emulated board: inputs must be 1 to 29, not " +
                                std::to_string(p.inputs));
  }
  if (p.ps_per_clock < 1 || p.ps_per_clock > 65535) {
    throw std::invalid_argument("emulated board: ps_per_clock must be 1 to 65535");
  }
  if (p.bin_count < 1 || p.bin_count > 256 || p.bin_count > p.ps_per_clock) {
    throw std::invalid_argument(
        "emulated board: bin_count must be 1 to 256 and at most ps_per_clock");
  }
  return p;
}

// A pulse from a 0 V baseline crosses the comparator only when the level lies
// strictly between the baseline and the pulse's peak.
bool crosses(double amplitude, double level) {
  if (amplitude > 0) return level > 0 && level < amplitude;
  if (amplitude < 0) return level < 0 && level > amplitude;
  return false;
}

}  // namespace

StreamEngine::StreamEngine(const StreamParameters& parameters, const nlohmann::json& sources)
    : parameters_(validated(parameters)),
      clock_(parameters.ps_per_clock),
      output_(parameters.ps_per_clock, parameters.paced, parameters.usb_words_per_second) {
  const int inputs = parameters_.inputs;
  for (int i = 0; i < inputs; ++i) latency_.push_back(inputPathLatencyPs(parameters_.model, i));
  for (int index = 0; index < channelCount(); ++index) {
    profiles_.emplace_back(parameters_.ps_per_clock, parameters_.bin_count,
                           mixSeed(parameters_.seed, kProfileStream + index));
  }
  for (int index = 0; index < channelCount(); ++index) {
    channels_.emplace_back(index, clock_, profiles_[static_cast<size_t>(index)].lookup());
  }
  const std::vector<SourceDescription> descriptions = parseSources(sources, inputs);
  for (size_t i = 0; i < descriptions.size(); ++i) {
    sources_.push_back(std::make_unique<Source>(
        descriptions[i], latency_, inputs,
        descriptions[i].seed ? mixSeed(*descriptions[i].seed, 0) : mixSeed(parameters_.seed, i)));
  }
  records_.resize(static_cast<size_t>(channelCount()));
  channel_lanes_.resize(static_cast<size_t>(channelCount()));
  configure(FirmwareSetup{});
}

void StreamEngine::configure(const FirmwareSetup& setup) {
  setup_ = setup;
  setup_.channels.resize(static_cast<size_t>(channelCount()));
  // An input whose DAC was never written sits at 0 V, where no pulse crosses.
  setup_.trigger_volts.resize(static_cast<size_t>(parameters_.inputs), 0.0);

  uint64_t trigger_mask = 0;
  uint64_t filtered_mask = 0;
  for (size_t index = 0; index < setup_.channels.size(); ++index) {
    const ChannelSetup& ch = setup_.channels[index];
    channels_[index].configure(ch.deadtime_clocks, ch.divider_field);
    if (ch.trigger) trigger_mask |= uint64_t{1} << index;
    if (ch.filtered) filtered_mask |= uint64_t{1} << index;
  }

  const int64_t period = int64_t{setup_.test_period_word} * parameters_.ps_per_clock * 2;
  const int64_t high = int64_t{setup_.test_half_period_word} * parameters_.ps_per_clock * 2;
  if (period != test_period_ps_ || high != test_high_ps_) {
    test_period_ps_ = period;
    test_high_ps_ = high;
    test_signal_.reset();
    // A square wave without both phases has no edges at all.
    if (high > 0 && high < period) {
      // The square wave comes from its own oscillator, not from the sampling
      // clock: its edges drift through every fine bin, which is what lets a
      // calibration pass over it fill the code-density tables.
      SourceDescription description;
      description.timing = SourceDescription::Timing::Periodic;
      description.period_ps = static_cast<double>(period) * kTestOscillatorRatio;
      description.width_ps = static_cast<double>(high) * kTestOscillatorRatio;
      description.jitter_ps = kTestSignalJitterPs;
      for (int i = 0; i < parameters_.inputs; ++i) description.members.push_back({i, 0.0, true});
      test_signal_ = std::make_unique<Source>(description, latency_, parameters_.inputs,
                                              mixSeed(parameters_.seed, kTestSignalStream));
      test_signal_->restart(position_ * parameters_.ps_per_clock);
    }
  }

  output_.setBuffer(setup_.buffer_words);
  output_.setFence(setup_.fence);
  output_.setFilter(trigger_mask, filtered_mask);
  bindLanes();
}

void StreamEngine::bindLanes() {
  const int64_t now_ps = position_ * parameters_.ps_per_clock;
  auto bind = [&](Source& source, bool test_signal) {
    const bool was_active = source.active();
    for (Lane& lane : source.lanes()) {
      const auto input = static_cast<size_t>(lane.input);
      const bool selected = (setup_.channels[input].mux == 3) == test_signal;
      const bool seen = test_signal || crosses(source.amplitude(), setup_.trigger_volts[input]);
      lane.active = setup_.channels[static_cast<size_t>(lane.index)].enabled && selected && seen;
      if (!lane.active) lane.reset();
    }
    source.bind();
    if (!was_active && source.active()) source.restart(now_ps);
  };

  active_sources_.clear();
  for (auto& list : channel_lanes_) list.clear();
  auto collect = [&](Source& source) {
    if (!source.active()) return;
    active_sources_.push_back(&source);
    for (Lane& lane : source.lanes()) {
      if (lane.active) channel_lanes_[static_cast<size_t>(lane.index)].push_back(&lane);
    }
  };
  for (auto& source : sources_) {
    bind(*source, false);
    collect(*source);
  }
  if (test_signal_) {
    bind(*test_signal_, true);
    collect(*test_signal_);
  }

  active_channels_.clear();
  for (size_t index = 0; index < channel_lanes_.size(); ++index) {
    if (!channel_lanes_[index].empty()) active_channels_.push_back(static_cast<int>(index));
  }

  double edges_per_second = 0;
  for (const Source* source : active_sources_) edges_per_second += source->activeEdgeRate();
  const double window_seconds_per_clock = static_cast<double>(parameters_.ps_per_clock) * 1e-12;
  window_clocks_ = StreamOutput::kPeriodClocks;
  while (window_clocks_ > kMinWindowClocks &&
         edges_per_second * static_cast<double>(window_clocks_) * window_seconds_per_clock >
             kEdgesPerWindow) {
    window_clocks_ /= 2;
  }
}

int64_t StreamEngine::earliestPending() const {
  int64_t earliest = kNoTime;
  for (const Source* source : active_sources_) {
    earliest = std::min(earliest, source->nextReference());
  }
  for (int index : active_channels_) {
    for (const Lane* lane : channel_lanes_[static_cast<size_t>(index)]) {
      earliest = std::min(earliest, lane->front());
    }
  }
  return earliest;
}

bool StreamEngine::quiet() const { return !output_.overflowing() && earliestPending() == kNoTime; }

int64_t StreamEngine::nextWindowEnd() const {
  return std::min(position_ + window_clocks_, output_.nextBoundary());
}

bool StreamEngine::advance(int64_t limit) {
  if (position_ >= limit) return false;
  const int64_t boundary = output_.nextBoundary();
  if (!output_.overflowing()) {
    const int64_t earliest_ps = earliestPending();
    const int64_t earliest = earliest_ps == kNoTime ? kNoTime : clock_.clockOf(earliest_ps);
    if (earliest >= boundary) {
      constexpr int64_t kPeriod = StreamOutput::kPeriodClocks;
      int64_t target = earliest == kNoTime ? kNoTime : earliest / kPeriod * kPeriod;
      target = std::min(target, boundary + int64_t{StreamOutput::kMaxRun} * kPeriod);
      target = std::min(target, limit / kPeriod * kPeriod);
      if (target > boundary) {
        output_.advanceTo(position_);
        output_.skipQuietTo(target);
        position_ = target;
        if (position_ >= kRebaseClocks) rebase();
        return true;
      }
    }
  }
  const int64_t end = nextWindowEnd();
  if (end > limit) {
    // Paced and the window is not over yet: only what is due at its start
    // (a rollover, an overflow end) can go out now.
    const size_t before = output_.available();
    output_.advanceTo(position_);
    return output_.available() != before;
  }
  produceWindow(end);
  if (position_ >= kRebaseClocks) rebase();
  return true;
}

void StreamEngine::produceWindow(int64_t end) {
  output_.advanceTo(position_);
  const int64_t end_ps = end * parameters_.ps_per_clock;
  for (Source* source : active_sources_) source->generate(end_ps);

  streams_.clear();
  for (int index : active_channels_) {
    const auto& lanes = channel_lanes_[static_cast<size_t>(index)];
    KeyBuffer& out = records_[static_cast<size_t>(index)];
    ChannelStage& stage = channels_[static_cast<size_t>(index)];
    if (lanes.size() == 1) {
      Lane& lane = *lanes[0];
      lane.settle(end_ps);
      stage.run(lane.edges.data() + lane.head, lane.ready - lane.head, out);
    } else {
      // Several sources on one input: rare, so a plain sort of their edges serves.
      scratch_.clear();
      for (Lane* lane : lanes) {
        lane->settle(end_ps);
        scratch_.insert(scratch_.end(), lane->edges.begin() + lane->head,
                        lane->edges.begin() + lane->ready);
      }
      std::sort(scratch_.begin(), scratch_.end());
      stage.run(scratch_.data(), scratch_.size(), out);
    }
    if (!out.empty()) streams_.push_back(&out);
  }
  if (!streams_.empty()) output_.merge(streams_.data(), streams_.size());
  output_.advanceTo(end - 1);

  for (int index : active_channels_) {
    for (Lane* lane : channel_lanes_[static_cast<size_t>(index)]) lane->consume();
  }
  position_ = end;
}

void StreamEngine::rebase() {
  const int64_t clocks = output_.periodBase();
  const int64_t shift = clocks * parameters_.ps_per_clock;
  for (auto& source : sources_) source->rebase(shift);
  if (test_signal_) test_signal_->rebase(shift);
  for (ChannelStage& stage : channels_) stage.rebase(clocks);
  output_.rebase(clocks);
  position_ -= clocks;
  origin_clocks_ += clocks;
}

const std::vector<int64_t>& StreamEngine::binUpperEdges(int index) const {
  if (index < 0 || index >= channelCount()) {
    throw std::invalid_argument("binUpperEdges: no hardware index " + std::to_string(index));
  }
  return profiles_[static_cast<size_t>(index)].upperEdges();
}

int64_t StreamEngine::inputLatency(int input) const {
  if (input < 0 || input >= parameters_.inputs) {
    throw std::invalid_argument("inputLatency: no input " + std::to_string(input));
  }
  return latency_[static_cast<size_t>(input)];
}

}  // namespace zeptick::emulator
