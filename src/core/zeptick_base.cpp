#include "zeptick/zeptick_base.h"

#include "zeptick/zeptick_hardware.h"

namespace zeptick {

// Out of line so that the vtables live in the library alone.
ZeptickBase::~ZeptickBase() = default;
Zeptick::~Zeptick() = default;
ZeptickVirtual::~ZeptickVirtual() = default;

}  // namespace zeptick
