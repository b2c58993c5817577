#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <string>

namespace zeptick::reliability {

/// A fresh directory for a run's files, removed with everything in it when the
/// run ends unless kept for a look afterwards.
class ScratchDirectory {
 public:
  /// Under `parent`, or under the system's temporary directory when it is empty.
  ScratchDirectory(const std::string& parent, const std::string& stem, bool keep);
  ~ScratchDirectory();
  ScratchDirectory(const ScratchDirectory&) = delete;
  ScratchDirectory& operator=(const ScratchDirectory&) = delete;

  const std::filesystem::path& path() const { return where; }
  /// Bytes in the directory's regular files, and their number.
  uintmax_t bytes() const;
  size_t files() const;

 private:
  std::filesystem::path where;
  bool keep;
};

}  // namespace zeptick::reliability
