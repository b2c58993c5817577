#include "core/tagger_factories.h"
#include "engine/zeptick_impl.h"

namespace zeptick::detail {

Zeptick* makeHardwareTagger(const std::string& serial) { return new ZeptickImpl(serial); }

}  // namespace zeptick::detail
