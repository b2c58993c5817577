#pragma once

// Everything a user of the library needs, in one include.
#include "zeptick/countrate.h"
#include "zeptick/emulator.h"
#include "zeptick/export.h"
#include "zeptick/iterator_base.h"
#include "zeptick/library.h"
#include "zeptick/logging.h"
#include "zeptick/ordered_barrier.h"
#include "zeptick/tag.h"
#include "zeptick/zeptick_base.h"
#include "zeptick/zeptick_hardware.h"
