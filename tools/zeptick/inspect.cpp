// zeptick inspect FILE: what a recording holds, read straight from disk.

#include <cstdint>
#include <cstdio>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "commands.h"
#include "zeptick/file_reader.h"
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

}  // namespace

void addInspect(CLI::App& app) {
  auto* cmd = app.add_subcommand("inspect",
                                 "Show what a recording holds: configuration, time "
                                 "span, tags per channel, overflows and errors");
  auto file = std::make_shared<std::string>();
  cmd->add_option("FILE", *file, "first file of the recording (.ztbin)")->required();
  cmd->callback([file] {
    FileReader reader(*file);
    const std::string configuration = reader.getConfiguration();
    const Summary s = summarize(reader);
    std::printf("file:            %s\n", file->c_str());
    std::printf("tags:            %llu\n", static_cast<unsigned long long>(s.tags));
    std::printf("time span:       %.6f s (%lld ps to %lld ps)\n", (s.last - s.first) * 1e-12,
                static_cast<long long>(s.first), static_cast<long long>(s.last));
    for (const auto& [channel, count] : s.perChannel)
      std::printf("channel %4d:    %llu\n", channel, static_cast<unsigned long long>(count));
    std::printf("overflow spans:  %llu\n", static_cast<unsigned long long>(s.overflowSpans));
    std::printf("missed events:   %llu\n", static_cast<unsigned long long>(s.missedEvents));
    std::printf("errors:          %llu\n", static_cast<unsigned long long>(s.errors));
    std::printf("last marker:     %s\n", reader.getLastMarker().c_str());
    std::printf("configuration:\n%s\n", configuration.c_str());
  });
}

}  // namespace zeptick::cli
