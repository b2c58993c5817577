// Count rates of four inputs of the built-in emulated instrument, once a second for three seconds.
#include <zeptick/zeptick.h>

#include <chrono>
#include <cstdio>
#include <thread>
#include <vector>

int main() {
  zeptick::attachDefaultEmulatedDevice();  // leave this out to use a connected instrument
  zeptick::Zeptick* tagger = zeptick::createZeptick();
  const std::vector<int> channels{1, 2, 3, 4};
  {
    zeptick::Countrate rate(tagger, channels);
    for (int second = 1; second <= 3; ++second) {
      rate.clear();
      std::this_thread::sleep_for(std::chrono::seconds(1));
      std::vector<double> rates;
      rate.getData([&rates](size_t n) {
        rates.resize(n);
        return rates.data();
      });
      std::printf("second %d:", second);
      for (size_t i = 0; i < rates.size(); ++i)
        std::printf("  input %d %9.0f/s", channels[i], rates[i]);
      std::printf("\n");
    }
  }  // measurements end before their tagger is freed
  zeptick::freeZeptick(tagger);
  zeptick::detachEmulatedDevices();
  return 0;
}
