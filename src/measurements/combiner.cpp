#include "zeptick/combiner.h"

#include <algorithm>

namespace zeptick {

Combiner::Combiner(ZeptickBase* tagger, const std::vector<int>& channels)
    : IteratorBase(tagger), channels(channels), counts(channels.size(), 0) {
  clear();
  for (int channel : this->channels) registerChannel(channel);
  virtual_channel = getNewVirtualChannel();
  finishInitialization();
}

Combiner::~Combiner() { stop(); }

int Combiner::getChannel() { return virtual_channel; }

void Combiner::getData(std::function<int64_t*(size_t)> array_out) {
  // `channels` is fixed after construction, so its size is safe to read unlocked.
  int64_t* out = array_out(channels.size());
  auto guard = getLock();
  std::copy(counts.begin(), counts.end(), out);
}

void Combiner::clear_impl() { std::fill(counts.begin(), counts.end(), 0); }

bool Combiner::next_impl(std::vector<Tag>& tags, int64_t /*begin_time*/, int64_t /*end_time*/) {
  output.clear();
  const int* const wanted = channels.data();
  int64_t* const count = counts.data();
  const size_t n = channels.size();
  for (const Tag& tag : tags) {
    output.push_back(tag);
    for (size_t i = 0; i < n; ++i) {
      if (wanted[i] != tag.channel) continue;
      ++count[i];
      Tag copy = tag;
      copy.channel = virtual_channel;
      output.push_back(copy);
    }
  }
  tags.swap(output);
  return true;
}

}  // namespace zeptick
