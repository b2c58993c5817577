#include <stdexcept>

#include "core/tagger_factories.h"

namespace zeptick::detail {

ZeptickVirtual* makeReplayTagger() {
  throw std::runtime_error("The replay tagger is not available in this build.");
}

}  // namespace zeptick::detail
