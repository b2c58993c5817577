#include "emulator/stream/source_random.h"

#include <cmath>

namespace zeptick::emulator {
namespace {

// Right edge of the base layer: beyond it lies the tail that is sampled exactly.
constexpr double kExpR = 7.697117470131487;
constexpr double kExpArea = 3.949659822581572e-3;
constexpr double kNormalR = 3.442619855899;
constexpr double kNormalArea = 9.91256303526217e-3;

// The exponential draw takes 53 bits for the abscissa; the normal draw a sign
// and 52 bits.
constexpr double kExpScale = 0x1.0p53;
constexpr double kNormalScale = 0x1.0p52;

// Whether f < exp(-y), for y >= 0. Since 1 - y <= exp(-y) <= 1 - y + y^2/2,
// most points are decided without the exponential.
bool below(double f, double y) {
  if (f < 1.0 - y) return true;
  if (f > 1.0 - y + 0.5 * y * y) return false;
  return f < std::exp(-y);
}

ZigguratTables buildTables() {
  ZigguratTables t{};

  double d = kExpR;
  double previous = d;
  const double q = kExpArea / std::exp(-d);
  t.exp_k[0] = static_cast<uint64_t>((d / q) * kExpScale);
  t.exp_k[1] = 0;
  t.exp_w[0] = q / kExpScale;
  t.exp_w[255] = d / kExpScale;
  t.exp_f[0] = 1.0;
  t.exp_f[255] = std::exp(-d);
  for (int i = 254; i >= 1; --i) {
    d = -std::log(kExpArea / d + std::exp(-d));
    t.exp_k[i + 1] = static_cast<uint64_t>((d / previous) * kExpScale);
    previous = d;
    t.exp_f[i] = std::exp(-d);
    t.exp_w[i] = d / kExpScale;
  }

  d = kNormalR;
  previous = d;
  const double qn = kNormalArea / std::exp(-0.5 * d * d);
  t.normal_k[0] = static_cast<uint64_t>((d / qn) * kNormalScale);
  t.normal_k[1] = 0;
  t.normal_w[0] = qn / kNormalScale;
  t.normal_w[127] = d / kNormalScale;
  t.normal_f[0] = 1.0;
  t.normal_f[127] = std::exp(-0.5 * d * d);
  for (int i = 126; i >= 1; --i) {
    d = std::sqrt(-2.0 * std::log(kNormalArea / d + std::exp(-0.5 * d * d)));
    t.normal_k[i + 1] = static_cast<uint64_t>((d / previous) * kNormalScale);
    previous = d;
    t.normal_f[i] = std::exp(-0.5 * d * d);
    t.normal_w[i] = d / kNormalScale;
  }
  return t;
}

}  // namespace

const ZigguratTables& zigguratTables() {
  static const ZigguratTables tables = buildTables();
  return tables;
}

uint64_t mixSeed(uint64_t seed, uint64_t stream) {
  Random first(seed);
  Random second(first.next() + stream * 0xD1B54A32D192ED03ULL);
  return second.next();
}

Random::Slow Random::exponentialSlow(uint64_t state, uint64_t u) {
  Random r(state);
  const ZigguratTables& z = *r.zig_;
  for (;;) {
    const unsigned layer = u & 0xFF;
    if (layer == 0) return {kExpR - std::log(r.uniformOpen()), r.state_};
    const double x = toDouble(u >> 11) * z.exp_w[layer];
    const double f = z.exp_f[layer] + r.uniform() * (z.exp_f[layer - 1] - z.exp_f[layer]);
    if (below(f, x)) return {x, r.state_};
    u = r.next();
    const unsigned again = u & 0xFF;
    const uint64_t j = u >> 11;
    if (j < z.exp_k[again]) return {toDouble(j) * z.exp_w[again], r.state_};
  }
}

Random::Slow Random::normalSlow(uint64_t state, uint64_t u) {
  Random r(state);
  const ZigguratTables& z = *r.zig_;
  for (;;) {
    const unsigned layer = u & 0x7F;
    const int64_t h = static_cast<int64_t>(u >> 11) - (int64_t{1} << 52);
    if (layer == 0) {
      double x = 0;
      double y = 0;
      do {
        x = -std::log(r.uniformOpen()) / kNormalR;
        y = -std::log(r.uniformOpen());
      } while (y + y < x * x);
      return {h > 0 ? kNormalR + x : -kNormalR - x, r.state_};
    }
    const double x = static_cast<double>(h) * z.normal_w[layer];
    const double f = z.normal_f[layer] + r.uniform() * (z.normal_f[layer - 1] - z.normal_f[layer]);
    if (below(f, 0.5 * x * x)) return {x, r.state_};
    u = r.next();
    const unsigned again = u & 0x7F;
    const int64_t h2 = static_cast<int64_t>(u >> 11) - (int64_t{1} << 52);
    const uint64_t magnitude = static_cast<uint64_t>(h2 < 0 ? -h2 : h2);
    if (magnitude < z.normal_k[again])
      return {static_cast<double>(h2) * z.normal_w[again], r.state_};
  }
}

}  // namespace zeptick::emulator
