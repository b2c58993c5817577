#pragma once

// libzeptick_emulator.so: the emulated boards behind the FrontPanel C symbols
// (okFrontPanel_*, okPLL22150_*, okDeviceSensors_*, with the signatures of
// device/frontpanel_api.h), so that the code path that loads the vendor's
// library at run time can be exercised without hardware. The library holds its
// own boards, separate from those of the program that loads it; they come from
// ZEPTICK_EMULATOR, read on the first device listing, or from the calls below.

#include "emulator/control/board_control.h"

extern "C" {

/// Attaches the boards of the JSON text `configuration`, replacing earlier ones.
/// Returns 0, or -1 with the reason in `error` (NUL-terminated, cut to `error_size`).
typedef int (*zeptickEmulator_AttachBoards_t)(const char* configuration, char* error,
                                              int error_size);
/// Detaches every board of the library.
typedef void (*zeptickEmulator_DetachBoards_t)();
/// The library's board with this serial as a zeptick::emulator::BoardControl*,
/// or null. Valid until the boards are detached or replaced.
typedef void* (*zeptickEmulator_FindBoard_t)(const char* serial);

}  // extern "C"
