#include "zeptick/histogram.h"

namespace zeptick {

Histogram::Histogram(ZeptickBase* tagger, int click_channel, int start_channel, int64_t binwidth,
                     int n_bins)
    : TimeDifferences(DeferStart{}, tagger, click_channel, start_channel, CHANNEL_UNUSED,
                      CHANNEL_UNUSED, binwidth, n_bins, 1) {
  finishInitialization();
}

Histogram::~Histogram() { stop(); }

void Histogram::getData(std::function<int32_t*(size_t)> array_out) {
  TimeDifferences::getData([&array_out](size_t, size_t n_bins) { return array_out(n_bins); });
}

}  // namespace zeptick
