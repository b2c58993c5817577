#include "serve_panel.h"

#include <algorithm>

#include "serve_request.h"
#include "zeptick/correlation.h"
#include "zeptick/start_stop.h"
#include "zeptick/zeptick_hardware.h"

namespace zeptick::cli::serve {

namespace {

int checkedChannel(Zeptick* tagger, const nlohmann::json& value) {
  if (!value.is_number_integer()) throw ApiError(400, "channels", "channels must be integers");
  const std::vector<int> known = tagger->getChannelList(ZT_CHANNEL_ALL);
  const int64_t channel = value.get<int64_t>();
  if (std::find(known.begin(), known.end(), channel) == known.end())
    throw ApiError(400, "channels", "channel " + std::to_string(channel) + " is not an input");
  return static_cast<int>(channel);
}

}  // namespace

Panel::Panel(Zeptick* tagger, int64_t id, const nlohmann::json& body) : id(id) {
  rejectUnknownFields(body, {"kind", "channels", "binwidth", "range"});
  if (body.contains("kind")) {
    if (!body["kind"].is_string() || (body["kind"] != "correlation" && body["kind"] != "startstop"))
      throw ApiError(400, "kind", "kind must be \"correlation\" or \"startstop\"");
    kind = body["kind"].get<std::string>();
  }
  if (!body.contains("channels") || !body["channels"].is_array() || body["channels"].size() != 2)
    throw ApiError(400, "channels", "channels must be a list of two input channels");
  channels[0] = checkedChannel(tagger, body["channels"][0]);
  channels[1] = checkedChannel(tagger, body["channels"][1]);
  if (body.contains("binwidth")) binwidth = timeField(body, "binwidth");
  if (binwidth < 1) throw ApiError(400, "binwidth", "binwidth must be at least 1 ps");
  if (body.contains("range")) range = timeField(body, "range");
  if (range < binwidth) throw ApiError(400, "range", "range must be at least one binwidth");
  if (range / binwidth > kMaxPanelBins)
    throw ApiError(400, "range",
                   "range holds more than " + std::to_string(kMaxPanelBins) + " bins");
  // Rounded up without adding first: range + binwidth could pass the largest time.
  n_bins = range / binwidth + (range % binwidth != 0 ? 1 : 0);
  if (kind == "correlation") {
    // Correlation centres its bins on zero, so an odd count would leave zero mid-bin.
    n_bins += n_bins % 2;
    first_bin = -n_bins / 2 * binwidth;
    correlation = std::make_unique<Correlation>(tagger, channels[0], channels[1], binwidth,
                                                static_cast<int>(n_bins));
  } else {
    start_stop = std::make_unique<StartStop>(tagger, channels[1], channels[0], binwidth);
  }
}

Panel::~Panel() = default;

nlohmann::json Panel::describe() const {
  // Whole bins may reach past the largest time when the range asked for was near it.
  int64_t covered;
  if (__builtin_mul_overflow(n_bins, binwidth, &covered)) covered = INT64_MAX;
  return {{"id", id},
          {"kind", kind},
          {"channels", {channels[0], channels[1]}},
          {"binwidth", binwidth},
          {"range", covered},
          {"first_bin", first_bin},
          {"bins", n_bins}};
}

std::vector<int64_t> Panel::counts() {
  std::vector<int64_t> out(static_cast<size_t>(n_bins), 0);
  if (correlation) {
    std::vector<int32_t> raw;
    correlation->getData([&](size_t n) { return raw.assign(n, 0), raw.data(); });
    std::copy_n(raw.begin(), std::min(raw.size(), out.size()), out.begin());
    return out;
  }
  std::vector<int64_t> rows;
  start_stop->getData(
      [&](size_t n, size_t width) { return rows.assign(n * width, 0), rows.data(); });
  for (size_t row = 0; row + 1 < rows.size(); row += 2) {
    const int64_t bin = rows[row] / binwidth;
    if (rows[row] >= 0 && bin < n_bins) out[static_cast<size_t>(bin)] += rows[row + 1];
  }
  return out;
}

void Panel::clear() {
  if (correlation) correlation->clear();
  if (start_stop) start_stop->clear();
}

}  // namespace zeptick::cli::serve
