#include <stdexcept>

#include "core/tagger_factories.h"

namespace zeptick::detail {

// Until the hardware tagger is built, creating one fails as when no instrument is attached.
Zeptick* makeHardwareTagger(const std::string&) {
  throw std::runtime_error("No valid Zeptick device found.");
}

}  // namespace zeptick::detail
