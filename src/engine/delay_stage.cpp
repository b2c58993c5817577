#include "engine/delay_stage.h"

namespace zeptick {

void DelayStage::setBlockSettings(const DelaySettings& s) { settings = s; }
void DelayStage::clear() {}
void DelayStage::reset(int64_t time) { until = time; }
void DelayStage::pushOutput(const Tag&) {}
void DelayStage::pushPreDelay(const PreDelayTag&) {}
void DelayStage::release(int64_t, std::vector<Tag>&) {}

int64_t hardwareDelayCompensation(std::string_view, int, bool) { return 0; }
std::vector<int64_t> hardwareDelayTable(std::string_view, int, bool) { return {}; }
int64_t effectiveInputDelay(int64_t, int64_t, bool, int64_t) { return 0; }

}  // namespace zeptick
