// zeptick inspect FILE: what a recording holds, read straight from disk.

#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "commands.h"
#include "files/file_format.h"
#include "files/foreign/channel_mapping.h"
#include "files/foreign/foreign_format.h"
#include "files/zeptick_file_reader.h"
#include "units.h"
#include "zeptick/file_reader.h"
#include "zeptick/file_signing.h"
#include "zeptick/logging.h"
#include "zeptick/tag.h"

namespace zeptick::cli {

namespace {

struct Summary {
  std::map<int32_t, uint64_t> perChannel;
  uint64_t tags = 0, errors = 0, overflowSpans = 0, missedEvents = 0;
  int64_t first = 0, last = 0;
};

Summary summarize(FileReader& reader) {
  Summary s;
  std::vector<Tag> block;
  while (reader.hasData()) {
    if (!reader.getDataRaw(block)) continue;
    for (const Tag& tag : block) {
      if (s.tags == 0) s.first = tag.time;
      s.last = tag.time;
      ++s.tags;
      switch (tag.type) {
        case Tag::Type::TimeTag:
          ++s.perChannel[tag.channel];
          break;
        case Tag::Type::Error:
          ++s.errors;
          break;
        case Tag::Type::OverflowBegin:
          ++s.overflowSpans;
          break;
        case Tag::Type::MissedEvents:
          s.missedEvents += tag.missed_events;
          break;
        default:
          break;
      }
    }
  }
  return s;
}

// The reader logs why a block fails and ends the file there; keep the last reason.
std::string last_error;
void keepError(LogLevel level, std::string message) {
  if (level == LOGGER_ERROR) last_error = std::move(message);
}

struct Verdict {
  size_t passed = 0, blocks = 0;
  std::string failure;  ///< empty if every block passed
};

// Reads each split file twice: without checks to count its time tag blocks, then with the
// digest and signature checks, which stop at the first block that fails.
std::vector<std::pair<std::string, Verdict>> verify(const std::string& base) {
  std::vector<std::pair<std::string, Verdict>> files;
  for (uint32_t index = 1;; ++index) {
    const std::string name = ZeptickFile::makeFileName(base, index);
    Verdict verdict;
    {
      ZeptickFileReader plain(name, false);
      if (!plain.isOpen()) break;
      while (plain.skipBlock()) ++verdict.blocks;
    }
    last_error.clear();
    const logger_t previous = setLogger(&keepError);
    {
      ZeptickFileReader checked(name, true);
      while (checked.skipBlock()) ++verdict.passed;
    }
    setLogger(previous);
    if (verdict.passed < verdict.blocks) verdict.failure = last_error;
    files.emplace_back(name, verdict);
  }
  return files;
}

// What a channel of another instrument's recording stands for, by the one mapping of them all.
std::string foreignMeaning(int32_t channel) {
  if (channel == foreign::kSyncChannel) return "  (sync)";
  if (channel > foreign::kMarkerChannelBase) {
    return "  (marker " + std::to_string(channel - foreign::kMarkerChannelBase) + ")";
  }
  return "  (detector " + std::to_string(channel - 1) + ")";
}

}  // namespace

void addInspect(CLI::App& app) {
  auto* cmd = app.add_subcommand("inspect",
                                 "Show what a recording holds: configuration, time "
                                 "span, tags per channel, overflows and errors");
  auto file = std::make_shared<std::string>();
  auto check = std::make_shared<bool>(false);
  auto key = std::make_shared<std::string>();
  cmd->add_option("FILE", *file,
                  "first file of the recording (.ztbin), or a PTU, SPC or Photon-HDF5 file")
      ->required();
  cmd->add_flag("--verify", *check, "check the hash and signature of every block");
  cmd->add_option("--key", *key, "P-256 public key (PEM) to verify with (default: the built-in)");
  cmd->callback([file, check, key] {
    const bool foreign = foreign::detectForeignFormat(*file) != foreign::ForeignFormat::None;
    if (foreign && *check) {
      throw std::invalid_argument(
          "--verify: only .ztbin recordings carry digests and signatures; 'zeptick import' "
          "converts this file into one");
    }
    FileReader reader(*file);
    const std::string configuration = reader.getConfiguration();
    const Summary s = summarize(reader);
    std::printf("file:            %s\n", file->c_str());
    if (foreign) {
      std::printf("recorded by:     another instrument; channels as mapped below\n");
    } else {
      ZeptickFileReader head(*file, false);
      ZeptickFile::FileId id{};
      head.getFileId(id);
      std::printf("recording id:    %08x-%08x-%08x-%08x\n", id[0], id[1], id[2], id[3]);
    }
    for (uint32_t index = 1;; ++index) {
      const std::string name = ZeptickFile::makeFileName(*file, index);
      std::error_code missing;
      const auto bytes = std::filesystem::file_size(name, missing);
      if (missing) break;
      std::printf("split file %3u:  %s (%llu bytes)\n", index, name.c_str(),
                  static_cast<unsigned long long>(bytes));
    }
    std::printf("tags:            %llu\n", static_cast<unsigned long long>(s.tags));
    std::printf("time span:       %.6f s (%lld ps to %lld ps)\n", (s.last - s.first) * 1e-12,
                static_cast<long long>(s.first), static_cast<long long>(s.last));
    for (const auto& [channel, count] : s.perChannel) {
      std::printf("channel %4d:    %llu%s\n", channel, static_cast<unsigned long long>(count),
                  foreign ? foreignMeaning(channel).c_str() : "");
    }
    std::printf("overflow spans:  %llu\n", static_cast<unsigned long long>(s.overflowSpans));
    std::printf("missed events:   %llu\n", static_cast<unsigned long long>(s.missedEvents));
    std::printf("errors:          %llu\n", static_cast<unsigned long long>(s.errors));
    std::printf("last marker:     %s\n", reader.getLastMarker().c_str());
    std::printf("configuration:\n%s\n", configuration.c_str());
    if (!*check) return;
    if (!key->empty()) setFileVerificationKey(readText(*key));
    size_t failed = 0;
    for (const auto& [name, verdict] : verify(*file)) {
      std::printf("verify %s: %zu of %zu blocks pass%s%s\n", name.c_str(), verdict.passed,
                  verdict.blocks,
                  verdict.failure.empty() ? "" : "; the next fails: ", verdict.failure.c_str());
      failed += verdict.blocks - verdict.passed;
    }
    if (failed > 0) throw std::runtime_error("verification failed");
  });
}

}  // namespace zeptick::cli
