// The correlation of two inputs: where photon pairs on inputs 1 and 2 pile up, and how an input
// delay moves the peak. The default emulated instrument sends pairs 1.5 ns apart.
#include <zeptick/zeptick.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <thread>
#include <vector>

namespace {

// Centre of the fullest bin, in picoseconds.
double peakDelay(zeptick::Correlation& correlation, int64_t binwidth) {
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
  const auto fullest = std::max_element(counts.begin(), counts.end()) - counts.begin();
  return static_cast<double>(index[static_cast<size_t>(fullest)]) + binwidth / 2.0;
}

}  // namespace

int main() {
  zeptick::attachDefaultEmulatedDevice();
  zeptick::Zeptick* tagger = zeptick::createZeptick();
  constexpr int64_t kBinwidth = 10;  // ps
  {
    zeptick::Correlation correlation(tagger, 1, 2, kBinwidth, 1000);
    tagger->sync();  // from here on the measurement sees what the instrument sends
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    const double before = peakDelay(correlation, kBinwidth);
    std::printf("peak at %.0f ps\n", before);

    tagger->setInputDelay(2, -1000);  // input 2's tags 1 ns earlier
    tagger->sync();
    correlation.clear();
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    const double after = peakDelay(correlation, kBinwidth);
    std::printf("with input 2 delayed by -1000 ps: peak at %.0f ps\n", after);
    // The index is channel 1's time minus channel 2's: tags of 2 made earlier move the peak up.
    if (after - before < 950 || after - before > 1050) return 1;
  }
  zeptick::freeZeptick(tagger);
  zeptick::detachEmulatedDevices();
  return 0;
}
