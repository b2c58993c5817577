#include "zeptick/flim.h"

namespace zeptick {

Flim::Flim(ZeptickBase* tagger, int click_channel, int start_channel, int next_channel,
           int64_t binwidth, int n_bins, int n_histograms)
    : TimeDifferences(DeferStart{}, tagger, click_channel, start_channel, next_channel,
                      CHANNEL_UNUSED, binwidth, n_bins, n_histograms) {
  finishInitialization();
}

Flim::~Flim() { stop(); }

}  // namespace zeptick
