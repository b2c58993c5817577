// Two instruments as one: an emulated Synchronizer drives both boards' clocks, the library finds
// the second board through the wiring, aligns both time bases and merges their streams. Photon
// pairs split across the boards, the second photon 300 ps later on the second board, show as a
// correlation peak at -300 ps between channel 101 (first board) and 201 (second board).
#include <zeptick/zeptick.h>

#include <chrono>
#include <cstdio>
#include <thread>
#include <vector>

int main() {
  zeptick::attachEmulatedDevices(R"({
    "devices": [
      {"serial": "LAB-A", "pacing": "free", "inputs": 2},
      {"serial": "LAB-B", "pacing": "free", "inputs": 2}
    ],
    "synchronizer": {
      "ring": ["LAB-A", "LAB-B"],
      "sources": [{"type": "pairs", "inputs": ["LAB-A:1", "LAB-B:1"], "delays_ps": [0, 300],
                   "rate_hz": 500000, "jitter_ps": 20}]
    }
  })");
  zeptick::Zeptick* group = zeptick::createZeptick("LAB-A");  // LAB-B is found by probing
  std::printf("group %s\n", group->getSerial().c_str());

  constexpr int64_t kBinwidth = 10;  // ps
  constexpr int kBins = 200;         // -1 ns to +1 ns
  double peak = 0;
  {
    zeptick::Correlation correlation(group, 101, 201, kBinwidth, kBins);
    correlation.startFor(20000000000);  // 20 ms of the group's time
    while (correlation.isRunning()) std::this_thread::sleep_for(std::chrono::milliseconds(10));
    std::vector<int32_t> counts;
    std::vector<int64_t> index;
    correlation.getData([&counts](size_t n) {
      counts.resize(n);
      return counts.data();
    });
    correlation.getIndex([&index](size_t n) {
      index.resize(n);
      return index.data();
    });
    // The peak's centre of mass: the jitter spreads the differences over a few bins.
    double weight = 0;
    double sum = 0;
    for (size_t i = 0; i < counts.size(); ++i) {
      weight += counts[i];
      sum += counts[i] * (static_cast<double>(index[i]) + kBinwidth / 2.0);
    }
    peak = weight > 0 ? sum / weight : 0;
    std::printf("correlation of 101 and 201: %.0f pairs, peak at %.0f ps\n", weight, peak);
  }
  zeptick::freeZeptick(group);
  zeptick::detachEmulatedDevices();
  // The second photon lags by 300 ps: channel 101's time minus 201's is -300 ps.
  return peak > -310 && peak < -290 ? 0 : 1;
}
