#include "reliability/stream/stream_digest.h"

#include <sstream>
#include <utility>

namespace zeptick::reliability {
namespace {

// The finaliser of a well-mixed 64-bit hash: every input bit moves about half of the output.
uint64_t mix(uint64_t value) {
  value ^= value >> 33;
  value *= 0xff51afd7ed558ccdULL;
  value ^= value >> 33;
  value *= 0xc4ceb9fe1a85ec53ULL;
  value ^= value >> 33;
  return value;
}

}  // namespace

void StreamDigest::add(const Tag& tag) {
  if (total == 0) first_time = tag.time;
  ++total;
  const int64_t time = tag.time - first_time;
  const uint64_t head = uint64_t{static_cast<uint8_t>(tag.type)} << 56 |
                        uint64_t{tag.missed_events} << 32 | static_cast<uint32_t>(tag.channel);
  // Order matters: the running value is rotated before each tag is folded in.
  rolling = mix((rolling << 7 | rolling >> 57) ^ head) ^ mix(static_cast<uint64_t>(time) + head);
  switch (tag.type) {
    case Tag::Type::Error:
      ++error_tags;
      return;
    case Tag::Type::OverflowBegin:
      ++overflow_begins;
      return;
    case Tag::Type::OverflowEnd:
      ++overflow_ends;
      return;
    case Tag::Type::MissedEvents:
      per_channel[tag.channel].missed += tag.missed_events;
      return;
    case Tag::Type::TimeTag:
      break;
  }
  Channel& channel = per_channel[tag.channel];
  if (channel.tags++ == 0) channel.first = time;
  channel.last = time;
}

int64_t StreamDigest::missedEvents() const {
  int64_t sum = 0;
  for (const auto& entry : per_channel) sum += entry.second.missed;
  return sum;
}

std::vector<std::string> StreamDigest::differences(const StreamDigest& other,
                                                   const std::string& name,
                                                   const std::string& other_name) const {
  std::vector<std::string> out;
  auto compare = [&](const std::string& what, int64_t mine, int64_t theirs) {
    if (mine == theirs) return;
    std::ostringstream line;
    line << what << ": " << name << " " << mine << ", " << other_name << " " << theirs;
    out.push_back(line.str());
  };
  compare("tags", total, other.total);
  compare("error tags", error_tags, other.error_tags);
  compare("overflow begins", overflow_begins, other.overflow_begins);
  compare("overflow ends", overflow_ends, other.overflow_ends);
  compare("channels", static_cast<int64_t>(per_channel.size()),
          static_cast<int64_t>(other.per_channel.size()));
  for (const auto& [number, mine] : per_channel) {
    const auto found = other.per_channel.find(number);
    const Channel theirs = found == other.per_channel.end() ? Channel{} : found->second;
    const std::string prefix = "channel " + std::to_string(number) + " ";
    compare(prefix + "tags", mine.tags, theirs.tags);
    compare(prefix + "missed events", mine.missed, theirs.missed);
    compare(prefix + "first time", mine.first, theirs.first);
    compare(prefix + "last time", mine.last, theirs.last);
  }
  if (rolling != other.rolling) {
    std::ostringstream line;
    line << "hash: " << name << " " << std::hex << rolling << ", " << other_name << " "
         << other.rolling;
    out.push_back(line.str());
  }
  return out;
}

DigestMeasurement::DigestMeasurement(ZeptickBase* tagger, const std::vector<int>& channels,
                                     BlockHook after_block)
    : IteratorBase(tagger), after_block(std::move(after_block)) {
  for (int channel : channels) registerChannel(channel);
  finishInitialization();
}

DigestMeasurement::~DigestMeasurement() { stop(); }

StreamDigest DigestMeasurement::digest() {
  auto guard = getLock();
  return seen;
}

int64_t DigestMeasurement::tags() {
  auto guard = getLock();
  return seen.tags();
}

int64_t DigestMeasurement::streamTime() {
  auto guard = getLock();
  return last_end;
}

bool DigestMeasurement::next_impl(std::vector<Tag>& tags, int64_t, int64_t end_time) {
  seen.add(tags);
  last_end = end_time;
  if (after_block && !tags.empty()) after_block(seen);
  return false;
}

void DigestMeasurement::clear_impl() { seen = StreamDigest{}; }

}  // namespace zeptick::reliability
