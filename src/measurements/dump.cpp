#include "zeptick/dump.h"

#include <algorithm>
#include <iterator>
#include <utility>

#include "core/log.h"

namespace zeptick {

Dump::Dump(ZeptickBase* tagger, const std::string& filename, int64_t max_tags,
           std::vector<int> channels)
    : IteratorBase(tagger), filename(filename), max_tags(max_tags), channels(std::move(channels)) {
  ZT_LOG_ERROR(
      "The Dump class is deprecated and will be removed soon. Please use FileWriter instead.");
  for (int channel : this->channels) registerChannel(channel);
  clear();
  finishInitialization();
}

Dump::~Dump() { stop(); }

void Dump::on_start() {
  stream_buffer.resize(1 << 20);
  output = std::ofstream();
  output.rdbuf()->pubsetbuf(stream_buffer.data(),
                            static_cast<std::streamsize>(stream_buffer.size()));
  output.open(filename, std::ios::binary | std::ios::out | std::ios::trunc);
  open = true;
}

void Dump::on_stop() {
  if (output.is_open()) {
    output.flush();
    output.close();
  }
  open = false;
}

void Dump::clear_impl() {
  // Restarting the file is what a clear means here.
  const bool was_open = open;
  if (was_open) on_stop();
  count = 0;
  if (was_open) on_start();
}

bool Dump::wanted(const Tag& tag) const {
  return tag.type != Tag::Type::TimeTag ||
         std::find(channels.begin(), channels.end(), tag.channel) != channels.end();
}

bool Dump::next_impl(std::vector<Tag>& tags, int64_t /*begin_time*/, int64_t /*end_time*/) {
  if (!open) return false;
  const std::vector<Tag>* source = &tags;
  if (!channels.empty()) {
    selected.clear();
    std::copy_if(tags.begin(), tags.end(), std::back_inserter(selected),
                 [this](const Tag& tag) { return wanted(tag); });
    source = &selected;
  }
  int64_t n = static_cast<int64_t>(source->size());
  if (max_tags >= 0) n = std::min(n, max_tags - count);
  if (n > 0 && output.is_open()) {
    output.write(reinterpret_cast<const char*>(source->data()),
                 static_cast<std::streamsize>(n * static_cast<int64_t>(sizeof(Tag))));
  }
  count += std::max<int64_t>(n, 0);
  if (max_tags >= 0 && max_tags <= count) stopAfterThisBlock();
  return false;
}

}  // namespace zeptick
