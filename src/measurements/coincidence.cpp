#include "zeptick/coincidence.h"

namespace zeptick {

Coincidence::Coincidence(ZeptickBase* tagger, const std::vector<int>& channels, int64_t window,
                         CoincidenceTimestamp timestamp)
    : Coincidences(DeferStart{}, tagger, std::vector<std::vector<int>>{channels}, window,
                   timestamp) {
  finishInitialization();
}

Coincidence::~Coincidence() { stop(); }

int Coincidence::getChannel() { return getChannels().front(); }

}  // namespace zeptick
