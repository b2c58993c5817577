#include "zeptick/constant_fraction_discriminator.h"

#include <algorithm>
#include <map>
#include <stdexcept>
#include <string>
#include <utility>

#include "measurements/ring_queue.h"

namespace zeptick {

namespace {

// Earliest on top of a std heap; signed differences, as everywhere in the stream.
bool later(const Tag& a, const Tag& b) { return a.time - b.time > 0; }

}  // namespace

ConstantFractionDiscriminator::ConstantFractionDiscriminator(ZeptickBase* tagger,
                                                             std::vector<int> channels,
                                                             int64_t search_window)
    : IteratorBase(tagger),
      search_window(search_window),
      half_window(search_window / 2),
      delayed(std::make_unique<detail::RingQueue<Tag>>()) {
  if (search_window < 1) throw std::invalid_argument("search_window must be at least 1 ps");

  // Built in a map, whose records stay put, then flattened for the hot loop.
  std::map<int, Edge> by_channel;
  std::map<int, int> partner_of;  // closing channel -> leading channel
  for (int channel : channels) {
    const int inverted = tagger->getInvertedChannel(channel);
    if (tagger->isUnusedChannel(inverted)) {
      throw std::invalid_argument("Channel number " + std::to_string(channel) +
                                  " has no inverted edge required for the CFD");
    }
    Edge& leading = by_channel.try_emplace(channel, Edge{channel}).first->second;
    Edge& closing = by_channel.try_emplace(inverted, Edge{inverted}).first->second;
    if (!closing.has_partner) {
      leading.is_leading = true;
      closing.has_partner = true;
      partner_of[inverted] = channel;
      closing.virtual_channel = getNewVirtualChannel();
    }
    virtual_channels.push_back(closing.virtual_channel);
    registerChannel(channel);
    registerChannel(inverted);
  }
  for (auto& [channel, edge] : by_channel) edges.push_back(edge);
  for (Edge& edge : edges) {
    if (!edge.has_partner) continue;
    const int leading = partner_of[edge.channel];
    edge.partner = static_cast<uint32_t>(findEdge(leading) - edges.data());
  }
  finishInitialization();
}

ConstantFractionDiscriminator::~ConstantFractionDiscriminator() { stop(); }

std::vector<int> ConstantFractionDiscriminator::getChannels() { return virtual_channels; }

ConstantFractionDiscriminator::Edge* ConstantFractionDiscriminator::findEdge(int channel) {
  auto found = std::lower_bound(edges.begin(), edges.end(), channel,
                                [](const Edge& edge, int wanted) { return edge.channel < wanted; });
  return found != edges.end() && found->channel == channel ? &*found : nullptr;
}

void ConstantFractionDiscriminator::on_start() {
  // Whatever is held back is dropped unseen, and no pulse may span the gap.
  for (Edge& edge : edges) edge.armed = false;
  delayed->clear();
  midpoints.clear();
}

void ConstantFractionDiscriminator::flush(int64_t limit) {
  for (;;) {
    // Stream tags go first among equal times.
    const bool from_stream =
        !delayed->empty() &&
        (midpoints.empty() || midpoints.front().time - delayed->front().time >= 0);
    if (from_stream) {
      if (delayed->front().time - limit >= 0) return;
      output.push_back(delayed->front());
      delayed->pop_front();
    } else {
      if (midpoints.empty() || midpoints.front().time - limit >= 0) return;
      output.push_back(midpoints.front());
      std::pop_heap(midpoints.begin(), midpoints.end(), later);
      midpoints.pop_back();
    }
  }
}

bool ConstantFractionDiscriminator::next_impl(std::vector<Tag>& tags, int64_t /*begin_time*/,
                                              int64_t end_time) {
  output.clear();
  for (const Tag& tag : tags) {
    if (tag.type != Tag::Type::TimeTag) {
      on_start();
      output.push_back(tag);
      continue;
    }
    const int64_t t = tag.time;
    flush(t);
    if (Edge* edge = findEdge(tag.channel)) {
      if (edge->is_leading) {
        edge->time = t;
        edge->armed = true;
      }
      if (edge->has_partner) {
        Edge& partner = edges[edge->partner];
        if (partner.armed) {
          partner.armed = false;
          const int64_t width = t - partner.time;
          // Below the window the midpoint is never earlier than t, so it
          // cannot fall behind what has already left.
          if (width < search_window) {
            midpoints.push_back(
                Tag{Tag::Type::TimeTag, 0, 0, edge->virtual_channel, t + half_window - width / 2});
            std::push_heap(midpoints.begin(), midpoints.end(), later);
          }
        }
      }
    }
    Tag shifted = tag;
    shifted.time += half_window;
    delayed->push_back(shifted);
  }
  flush(end_time);
  tags.swap(output);
  output.clear();
  return true;
}

}  // namespace zeptick
