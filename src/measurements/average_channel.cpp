#include "zeptick/average_channel.h"

#include <algorithm>
#include <cstdlib>
#include <stdexcept>
#include <utility>

#include "measurements/ring_queue.h"

namespace zeptick {

namespace {

constexpr size_t kRequiredChannels = 36;
constexpr int64_t kBaseWindow = 4000;
constexpr int64_t kWindowPerChannel = 1000;

bool later(const Tag& a, const Tag& b) { return a.time - b.time > 0; }

// Channel numbers are apart by their 32-bit difference, as the device counts them.
int64_t channelDistance(int a, int b) {
  const auto difference = static_cast<int32_t>(static_cast<uint32_t>(a) - static_cast<uint32_t>(b));
  return std::abs(static_cast<int64_t>(difference));
}

}  // namespace

AverageChannel::AverageChannel(Zeptick* tagger, int reference_channel, std::vector<int> channels)
    : IteratorBase(tagger),
      channels(std::move(channels)),
      pending(std::make_unique<detail::RingQueue<Tag>>()) {
  if (tagger->getChannelList(ZT_CHANNEL_ALL).size() < kRequiredChannels) {
    throw std::runtime_error(
        "The AverageChannel measurement class is only supported on Zeptick Ultra 18 devices.");
  }
  window = kBaseWindow;
  for (int channel : this->channels) {
    window = std::max(
        window, channelDistance(channel, reference_channel) * kWindowPerChannel + kBaseWindow);
  }
  const int64_t reference_magnitude = std::abs(static_cast<int64_t>(reference_channel));
  for (int channel : this->channels) {
    registerChannel(channel);
    const int64_t magnitude = std::abs(static_cast<int64_t>(channel));
    if (magnitude < reference_magnitude) {
      tagger->setInputMux(channel, 2);
    } else if (magnitude > reference_magnitude) {
      tagger->setInputMux(channel, 1);
    }
  }
  virtual_channel = getNewVirtualChannel();
  last_times.assign(this->channels.size(), 0);
  // Sums of differences stay below channels x window, the binner's range. With
  // no input nothing is ever divided, but the divisor must still be positive.
  const uint64_t count = std::max<uint64_t>(this->channels.size(), 1);
  binner = FastBinning(count, count * static_cast<uint64_t>(window));
  clear_impl();
  finishInitialization();
}

AverageChannel::~AverageChannel() { stop(); }

int AverageChannel::getChannel() { return virtual_channel; }

void AverageChannel::clear_impl() {
  // A time of 0 is too old for any tag time of a window or more.
  std::fill(last_times.begin(), last_times.end(), 0);
}

void AverageChannel::flushQueue(int64_t limit) {
  for (;;) {
    // Stream tags go first among equal times.
    const bool from_stream =
        !pending->empty() && (means.empty() || means.front().time - pending->front().time >= 0);
    if (from_stream) {
      if (pending->front().time + window - limit >= 0) return;
      output.push_back(pending->front());
      pending->pop_front();
    } else {
      if (means.empty() || means.front().time + window - limit >= 0) return;
      output.push_back(means.front());
      std::pop_heap(means.begin(), means.end(), later);
      means.pop_back();
    }
  }
}

template <FastBinning::Mode M>
void AverageChannel::process(const std::vector<Tag>& tags) {
  const size_t n = channels.size();
  for (const Tag& tag : tags) {
    flushQueue(tag.time);
    pending->push_back(tag);
    if (tag.type != Tag::Type::TimeTag) {
      // Events may have been lost: no mean may reach across.
      clear_impl();
      continue;
    }
    for (size_t i = 0; i < n; ++i) {
      if (channels[i] != tag.channel) continue;
      last_times[i] = tag.time;
      // Differences to this tag keep the sum small, within the binner's range.
      uint64_t sum = 0;
      bool complete = true;
      for (int64_t last : last_times) {
        const int64_t difference = tag.time - last;
        // A negative difference can only come from a forgotten entry (0) on
        // a stream at negative times: it belongs to no recent tag either.
        if (difference >= window || difference < 0) {
          complete = false;
          break;
        }
        sum += static_cast<uint64_t>(difference);
      }
      if (!complete) continue;
      Tag mean = tag;
      mean.channel = virtual_channel;
      mean.time = tag.time - static_cast<int64_t>(binner.divide<M>(sum));
      means.push_back(mean);
      std::push_heap(means.begin(), means.end(), later);
    }
  }
}

bool AverageChannel::next_impl(std::vector<Tag>& tags, int64_t /*begin_time*/, int64_t end_time) {
  output.clear();
  withBinningMode(binner, [&](auto mode) { process<decltype(mode)::value>(tags); });
  flushQueue(end_time);
  tags.swap(output);
  output.clear();
  return true;
}

}  // namespace zeptick
