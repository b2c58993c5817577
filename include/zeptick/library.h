#pragma once

#include <string>
#include <vector>

#include "zeptick/export.h"
#include "zeptick/tag.h"
#include "zeptick/zeptick_base.h"
#include "zeptick/zeptick_hardware.h"

namespace zeptick {

/// The library's version, "2.7.0".
ZEPTICK_API std::string getVersion();

/// Opens the instrument with `serial`, or the first free one for an empty
/// serial. Opening the same instrument twice returns the same object with one
/// more reference. Throws std::runtime_error when no instrument can be opened.
ZEPTICK_API Zeptick* createZeptick(const std::string& serial = "");

/// A new replay tagger, with a reference count of 1.
ZEPTICK_API ZeptickVirtual* createZeptickVirtual();

/// Drops one reference; destroys the tagger at zero and returns true only then.
/// Measurements still alive stop and stay readable. Unknown pointers return false.
/// Do not pass a handle of a tagger already destroyed: converting a dead
/// Zeptick* to ZeptickBase* already reads freed memory.
ZEPTICK_API bool freeZeptick(ZeptickBase* tagger);

/// Destroys every live tagger whatever its reference count.
ZEPTICK_API void freeAllZeptick();

/// Serial numbers of the attached instruments.
ZEPTICK_API std::vector<std::string> scanZeptick();

/// Model of the attached instrument with `serial`.
ZEPTICK_API std::string getZeptickModel(const std::string& serial);

/// Firmware file name to use instead of the model's default.
ZEPTICK_API void setCustomBitFileName(const std::string& name);

/// Channel numbering for taggers created from now on: ZT_CHANNEL_NUMBER_SCHEME_AUTO,
/// ZT_CHANNEL_NUMBER_SCHEME_ZERO or ZT_CHANNEL_NUMBER_SCHEME_ONE. Not checked.
ZEPTICK_API void setZeptickChannelNumberScheme(int scheme);
ZEPTICK_API int getZeptickChannelNumberScheme();

/// Whether the replay tagger may be used; always true in this library.
ZEPTICK_API bool hasZeptickVirtualLicense();

}  // namespace zeptick
