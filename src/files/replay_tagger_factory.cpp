#include "core/tagger_factories.h"
#include "files/zeptick_virtual_impl.h"

namespace zeptick::detail {

ZeptickVirtual* makeReplayTagger() { return new ZeptickVirtualImpl(); }

}  // namespace zeptick::detail
