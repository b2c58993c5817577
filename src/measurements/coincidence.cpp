#include "zeptick/coincidence.h"

namespace zeptick {

Coincidence::Coincidence(ZeptickBase* tagger, const std::vector<int>& channels, int64_t window,
                         CoincidenceTimestamp timestamp)
    : Coincidences(tagger, std::vector<std::vector<int>>{channels}, window, timestamp) {}

int Coincidence::getChannel() { return getChannels().front(); }

}  // namespace zeptick
