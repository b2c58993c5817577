#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "zeptick/iterator_base.h"

namespace zeptick {

namespace detail {
template <typename T>
class RingQueue;
}

/// Turns the two edges of each pulse into one tag at the pulse's midpoint,
/// which for a symmetric pulse does not depend on its height. A tag on a given
/// channel opens a pulse, the next tag on its inverted channel closes it, and
/// if the pulse is shorter than `search_window` a tag goes out on a virtual
/// channel at its centre. To give the midpoint room in the time order, every
/// time tag of the stream leaves half a window later, its time shifted by
/// that much; tags that are not time tags are not delayed, and each of them
/// drops what is held back and every open pulse (so nothing spans an
/// overflow). Tags of equal time may leave in any order.
class ZEPTICK_API ConstantFractionDiscriminator : public IteratorBase {
 public:
  /// Throws std::invalid_argument if `search_window` < 1 ps or a channel has no
  /// inverted edge. A channel listed twice shares one virtual channel.
  ConstantFractionDiscriminator(ZeptickBase* tagger, std::vector<int> channels,
                                int64_t search_window);
  ~ConstantFractionDiscriminator() override;

  /// One virtual channel per entry of `channels`, in the same order.
  std::vector<int> getChannels();

 protected:
  void on_start() override;
  bool next_impl(std::vector<Tag>& tags, int64_t begin_time, int64_t end_time) override;

 private:
  struct Edge {
    int channel;
    bool is_leading = false;   // opens a pulse
    bool armed = false;        // a pulse is open
    int64_t time = 0;          // leading edge of the open pulse
    bool has_partner = false;  // closes the pulse opened on `partner`
    uint32_t partner = 0;      // index into edges
    int virtual_channel = CHANNEL_UNUSED;
  };

  Edge* findEdge(int channel);
  void flush(int64_t limit);

  int64_t search_window;
  int64_t half_window;
  std::vector<int> virtual_channels;
  std::vector<Edge> edges;  // sorted by channel
  std::vector<Tag> output;
  // Held-back stream tags, in time order since all gain the same delay, and
  // midpoints, which need sorting in among them.
  std::unique_ptr<detail::RingQueue<Tag>> delayed;
  std::vector<Tag> midpoints;  // binary heap, earliest on top
};

}  // namespace zeptick
