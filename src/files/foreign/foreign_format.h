#pragma once

#include <memory>
#include <string>

#include "files/recording_source.h"

namespace zeptick::foreign {

/// Recordings of other instruments that the replay tagger and FileReader play.
enum class ForeignFormat { None, Ptu, Spc, PhotonHdf5 };

/// The format of the file `path` by its content: the PTU magic, the HDF5 signature, or the
/// first word of a Becker & Hickl SPC FIFO file. Four bytes are a weak sign, so an SPC file is
/// recognised only with its settings file (.set) beside it or the .spc extension. None for a
/// missing file, a .ztbin file, or anything else.
ForeignFormat detectForeignFormat(const std::string& path);

/// A reader for `path` in `format` (not None). On a fault it logs what and where and has no
/// block; isOpen() tells whether its header was understood.
std::unique_ptr<RecordingSource> openForeignRecording(const std::string& path,
                                                      ForeignFormat format);

}  // namespace zeptick::foreign
