#include "zeptick/gated_channel.h"

#include <stdexcept>

namespace zeptick {

GatedChannel::GatedChannel(ZeptickBase* tagger, int input_channel, int gate_start_channel,
                           int gate_stop_channel)
    : IteratorBase(tagger),
      input_channel(input_channel),
      gate_start_channel(gate_start_channel),
      gate_stop_channel(gate_stop_channel),
      virtual_channel(getNewVirtualChannel()) {
  if (gate_start_channel == gate_stop_channel) {
    throw std::runtime_error("Gate start and stop channel must not be the same.");
  }
  registerChannel(input_channel);
  registerChannel(gate_start_channel);
  registerChannel(gate_stop_channel);
  finishInitialization();
}

GatedChannel::~GatedChannel() { stop(); }

int GatedChannel::getChannel() { return virtual_channel; }

bool GatedChannel::next_impl(std::vector<Tag>& tags, int64_t /*begin_time*/, int64_t /*end_time*/) {
  output.clear();
  for (const Tag& tag : tags) {
    output.push_back(tag);
    if (tag.type != Tag::Type::TimeTag) {
      // Events may have been lost: the gate's state is unknown until the next start.
      gate_open = false;
      continue;
    }
    if (tag.channel == gate_stop_channel) {
      gate_open = false;
      continue;
    }
    if (tag.channel == gate_start_channel) {
      gate_open = true;
    } else if (!gate_open) {
      continue;
    }
    if (tag.channel == input_channel) {
      Tag copy = tag;
      copy.channel = virtual_channel;
      output.push_back(copy);
    }
  }
  tags.swap(output);
  return true;
}

}  // namespace zeptick
