// The configuration report: a JSON text written by hand, because its exact
// indentation and key order are what files and users rely on.

#include <algorithm>
#include <ctime>
#include <locale>
#include <sstream>

#include "engine/zeptick_impl.h"
#include "zeptick/library.h"

namespace zeptick {

namespace {

std::string localTimeText() {
  const std::time_t now = std::time(nullptr);
  std::tm local{};
  localtime_r(&now, &local);
  char buffer[80];
  std::strftime(buffer, sizeof(buffer), "%F %T %z", &local);
  return buffer;
}

const char* boolText(bool value) { return value ? "true" : "false"; }

bool contains(const std::vector<int>& list, int channel) {
  return std::find(list.begin(), list.end(), channel) != list.end();
}

}  // namespace

std::string ZeptickImpl::getConfiguration() {
  std::ostringstream out;
  out.imbue(std::locale::classic());
  out << "{\n";
  out << "  \"current time\": \"" << localTimeText() << "\",\n";
  out << "  \"software version\": \"" << getVersion() << "\",\n";
  std::vector<int> registered;
  {
    detail::MutexLock guard(configMutex);
    for (const auto& [channel, config] : configs) {
      if (config.registrations != 0) registered.push_back(channel);
    }
  }
  out << "  \"registered channels\": [";
  for (size_t i = 0; i < registered.size(); ++i) out << (i == 0 ? "" : ", ") << registered[i];
  out << "],\n";
  out << "  \"serial\": \"" << getSerial() << "\",\n";
  out << "  \"firmware version\": \"" << getFirmwareVersion() << "\",\n";
  out << "  \"hardware buffer size\": " << getHardwareBufferSize() << ",\n";
  out << "  \"normalization\": " << boolText(getNormalization()) << ",\n";
  out << "  \"test signal divider\": " << getTestSignalDivider() << ",\n";
  out << "  \"channel number scheme\": " << getChannelNumberScheme() << ",\n";
  {
    detail::MutexLock guard(configMutex);
    out << "  \"led bitmask\": " << ledBits << ",\n";
    out << "  \"stream block size events\": " << maxEvents << ",\n";
    out << "  \"stream block size latency\": " << maxLatency << ",\n";
  }
  out << "  \"devices\": [\n";
  for (size_t i = 0; i < devices.size(); ++i) {
    const FPGA_DEVICE& device = *devices[i];
    out << "    {\n";
    out << "      \"serial\": \"" << device.serial << "\",\n";
    out << "      \"model\": \"" << device.model << "\",\n";
    out << "      \"resolution\": "
        << NativeDecoder::getResolution(static_cast<int32_t>(device.backend->modelCode()),
                                        device.backend->resolutionMask())
        << ",\n";
    out << "      \"PCB version\": \"" << pcbVersionText(device) << "\"\n";
    out << (i + 1 == devices.size() ? "    }\n" : "    },\n");
  }
  out << "  ],\n";

  const std::vector<int> filtered = getConditionalFilterFiltered();
  const std::vector<int> triggers = getConditionalFilterTrigger();
  const std::vector<int> rising = getChannelList(ZT_CHANNEL_RISING);
  out << "  \"inputs\": [\n";
  for (size_t i = 0; i < rising.size(); ++i) {
    const int a = rising[i];
    const int b = getInvertedChannel(a);
    auto pair = [&out](const char* key, auto first, auto second) {
      out << "      \"" << key << "\": [" << first << ", " << second << "],\n";
    };
    out << "    {\n";
    pair("channel", a, b);
    out << "      \"trigger level\": " << getTriggerLevel(a) << ",\n";
    pair("input delay", getInputDelay(a), getInputDelay(b));
    pair("hardware delay compensation", getHardwareDelayCompensation(a),
         getHardwareDelayCompensation(b));
    pair("deadtime", getDeadtime(a), getDeadtime(b));
    pair("event divider", getEventDivider(a), getEventDivider(b));
    pair("conditional filter filtered", boolText(contains(filtered, a)),
         boolText(contains(filtered, b)));
    pair("conditional filter triggers", boolText(contains(triggers, a)),
         boolText(contains(triggers, b)));
    out << "      \"input mux\": " << getInputMux(a) << "\n";
    out << (i + 1 == rising.size() ? "    }\n" : "    },\n");
  }
  out << "  ]\n";
  out << "}\n";
  return out.str();
}

}  // namespace zeptick
