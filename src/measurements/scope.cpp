#include "zeptick/scope.h"

#include <stdexcept>
#include <utility>

namespace zeptick {

namespace {

std::vector<int> checkedChannels(std::vector<int> channels) {
  if (channels.empty()) throw std::invalid_argument("channels must not be empty");
  return channels;
}

int checkedTrigger(int channel) {
  if (channel == CHANNEL_UNUSED) throw std::invalid_argument("trigger_channel must be used");
  return channel;
}

int64_t checkedWindow(int64_t window) {
  if (window < 1) throw std::invalid_argument("window must be at least 1 ps");
  return window;
}

int32_t checkedTraces(int32_t n_traces) {
  if (n_traces < 1) throw std::invalid_argument("n_traces must be at least 1");
  return n_traces;
}

}  // namespace

Scope::Scope(ZeptickBase* tagger, std::vector<int> channels, int trigger_channel, int64_t window,
             int32_t n_traces)
    : IteratorBase(tagger),
      channels(checkedChannels(std::move(channels))),
      trigger_channel(checkedTrigger(trigger_channel)),
      window(checkedWindow(window)),
      n_traces(checkedTraces(n_traces)),
      steps(this->channels.size()),
      open_steps(this->channels.size()),
      levels(this->channels.size(), -1) {
  for (int channel : this->channels) {
    falling.push_back(tagger->getInvertedChannel(channel));
    registerChannel(channel);
    registerChannel(falling.back());
  }
  registerChannel(trigger_channel);
  clear();
  finishInitialization();
}

Scope::~Scope() { stop(); }

void Scope::getData(size_t index, std::function<int64_t*(size_t, size_t)> array_out) {
  if (index >= channels.size()) throw std::invalid_argument("index is out of range");
  auto guard = getLock();
  const std::vector<Step>& list = steps[index];
  int64_t* out = array_out(list.size(), 3);
  for (const Step& step : list) {
    *out++ = step.trace;
    *out++ = step.time;
    *out++ = step.level;
  }
}

void Scope::getTriggerTimes(std::function<int64_t*(size_t)> array_out) {
  auto guard = getLock();
  int64_t* out = array_out(trigger_times.size());
  for (int64_t time : trigger_times) *out++ = time;
}

bool Scope::ready() {
  auto guard = getLock();
  return trigger_times.size() >= static_cast<size_t>(n_traces);
}

void Scope::clear_impl() {
  for (auto& list : steps) list.clear();
  trigger_times.clear();
  forgetTrace();
}

void Scope::openTrace(int64_t time) {
  open = true;
  trigger_time = time;
  const int32_t trace = static_cast<int32_t>(trigger_times.size());
  for (size_t i = 0; i < channels.size(); ++i) {
    open_steps[i].clear();
    open_steps[i].push_back(Step{trace, 0, levels[i]});
  }
}

void Scope::closeTrace() {
  for (size_t i = 0; i < channels.size(); ++i) {
    steps[i].insert(steps[i].end(), open_steps[i].begin(), open_steps[i].end());
  }
  trigger_times.push_back(trigger_time);
  open = false;
}

void Scope::forgetTrace() { open = false; }

void Scope::onEdge(const Tag& tag, size_t input, int8_t level) {
  levels[input] = level;
  if (!open) return;
  std::vector<Step>& list = open_steps[input];
  const int64_t time = tag.time - trigger_time;
  // Edges at the trigger's own time set the level the trace starts with, whether they came
  // before or after the trigger tag.
  if (time == 0) {
    list.back().level = level;
  } else {
    list.push_back(Step{static_cast<int32_t>(trigger_times.size()), time, level});
  }
}

bool Scope::next_impl(std::vector<Tag>& tags, int64_t, int64_t end_time) {
  const size_t wanted = static_cast<size_t>(n_traces);
  for (const Tag& tag : tags) {
    if (open && tag.time - trigger_time >= window) closeTrace();
    if (tag.type != Tag::Type::TimeTag) {
      // Edges are missing from here on: the open trace and the levels cannot be trusted.
      forgetTrace();
      for (int8_t& level : levels) level = -1;
      continue;
    }
    if (!open && tag.channel == trigger_channel && trigger_times.size() < wanted) {
      openTrace(tag.time);
    }
    for (size_t i = 0; i < channels.size(); ++i) {
      if (tag.channel == channels[i]) onEdge(tag, i, 1);
      if (tag.channel == falling[i]) onEdge(tag, i, 0);
    }
  }
  if (open && end_time - trigger_time >= window) closeTrace();
  return false;
}

}  // namespace zeptick
