#pragma once

#include <string>

#include "zeptick/export.h"

namespace zeptick {

/// Emulated instruments: software boards that the library opens, programs and
/// reads exactly like real ones, for developing and testing without hardware.
/// They are opt-in. While any are attached, scanZeptick() and createZeptick()
/// see only them; the real instruments come back after detachEmulatedDevices().
/// The JSON configuration format is described in the README ("Emulated
/// instrument"). Programs not written for the emulator can get the same with
/// the environment variable ZEPTICK_EMULATOR set to "default" or to the path of
/// such a file; that variable is read once, and not at all after a program
/// called one of these functions.
///
/// All functions are thread-safe. Taggers created on emulated instruments must
/// be freed before the instruments are detached or replaced; until then their
/// devices read as unplugged.

/// Attaches the instruments of the JSON text `configuration`, replacing any
/// attached before. Throws std::invalid_argument naming the offending field if
/// the text is not valid JSON or not a valid configuration; nothing changes then.
ZEPTICK_API void attachEmulatedDevices(const std::string& configuration);

/// As attachEmulatedDevices() with the contents of the file at `path`. Throws
/// std::runtime_error if the file cannot be read.
ZEPTICK_API void attachEmulatedDevicesFromFile(const std::string& path);

/// Attaches the built-in default: one "Zeptick Ultra" with 18 inputs and demo
/// signals (photon pairs on inputs 1 and 2, a laser on 3, random counts on 4).
ZEPTICK_API void attachDefaultEmulatedDevice();

/// The built-in default configuration as a JSON text, a starting point for one's own.
ZEPTICK_API std::string defaultEmulatorConfiguration();

/// Detaches every emulated instrument.
ZEPTICK_API void detachEmulatedDevices();

}  // namespace zeptick
