#pragma once

#include <mutex>

namespace zeptick::foreign {

/// The one lock every HDF5 call of the library holds, reading or writing: the C library may be
/// built without thread safety, and a replay may read one file while an export writes another.
std::mutex& hdf5Mutex();

}  // namespace zeptick::foreign
