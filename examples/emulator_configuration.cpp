// An emulated instrument of one's own: the sources on its inputs are described in JSON (see the
// README's emulator section). Here a 1 MHz clock on input 1 and Poisson light on input 2 at
// 200 kHz; the event divider then thins the clock to 250 kHz.
#include <zeptick/zeptick.h>

#include <chrono>
#include <cstdio>
#include <thread>
#include <vector>

namespace {

std::vector<double> ratesOverOneSecond(zeptick::Zeptick* tagger, const std::vector<int>& channels) {
  zeptick::Countrate rate(tagger, channels);
  tagger->sync();
  std::this_thread::sleep_for(std::chrono::seconds(1));
  std::vector<double> rates;
  rate.getData([&rates](size_t n) {
    rates.resize(n);
    return rates.data();
  });
  return rates;
}

}  // namespace

int main() {
  zeptick::attachEmulatedDevices(R"({
    "devices": [{
      "serial": "MYLAB0001",
      "model": "Zeptick Ultra",
      "inputs": 4,
      "sources": [
        {"type": "periodic", "input": 1, "period_ps": 1000000},
        {"type": "poisson", "input": 2, "rate_hz": 200000}
      ]
    }]
  })");
  zeptick::Zeptick* tagger = zeptick::createZeptick("MYLAB0001");
  std::printf("%s, serial %s\n", tagger->getModel().c_str(), tagger->getSerial().c_str());

  std::vector<double> rates = ratesOverOneSecond(tagger, {1, 2});
  std::printf("input 1: %.0f/s, input 2: %.0f/s\n", rates[0], rates[1]);

  tagger->setEventDivider(1, 4);
  rates = ratesOverOneSecond(tagger, {1});
  std::printf("input 1 with the event divider at 4: %.0f/s\n", rates[0]);

  zeptick::freeZeptick(tagger);
  zeptick::detachEmulatedDevices();
  return 0;
}
