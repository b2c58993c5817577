// zeptick info [--serial S]: identity, configuration report and health report
// of one instrument.

#include <cstdio>
#include <memory>
#include <string>

#include "commands.h"
#include "live.h"
#include "zeptick/library.h"
#include "zeptick/zeptick_hardware.h"

namespace zeptick::cli {

void addInfo(CLI::App& app) {
  auto* cmd = app.add_subcommand(
      "info", "Show one instrument's identity, configuration report and health report (sensors)");
  auto serial = std::make_shared<std::string>();
  addSerialOption(cmd, *serial);
  cmd->callback([serial] {
    std::unique_ptr<Zeptick, bool (*)(ZeptickBase*)> tagger(openInstrument(*serial), freeZeptick);
    std::printf("serial:        %s\n", tagger->getSerial().c_str());
    std::printf("model:         %s\n", tagger->getModel().c_str());
    std::printf("firmware:      %s\n", tagger->getFirmwareVersion().c_str());
    std::printf("pcb:           %s\n", tagger->getPcbVersion().c_str());
    std::printf("inputs:        %zu\n", tagger->getChannelList(ZT_CHANNEL_RISING).size());
    std::printf("configuration:\n%s\n", tagger->getConfiguration().c_str());
    std::printf("sensors:\n%s\n", tagger->getSensorData().c_str());
  });
}

}  // namespace zeptick::cli
