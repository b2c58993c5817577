// zeptick scan: the instruments this computer sees.

#include <cstdio>
#include <memory>
#include <string>

#include "commands.h"
#include "zeptick/library.h"

namespace zeptick::cli {

void addScan(CLI::App& app) {
  auto* cmd = app.add_subcommand("scan", "List the instruments found, one per line");
  auto json = std::make_shared<bool>(false);
  cmd->add_flag("--json", *json, "print a JSON array instead of a table");
  cmd->callback([json] {
    const auto serials = scanZeptick();
    if (*json) {
      std::printf("[");
      for (size_t i = 0; i < serials.size(); ++i)
        std::printf("%s{\"serial\": \"%s\", \"model\": \"%s\"}", i ? ", " : "", serials[i].c_str(),
                    getZeptickModel(serials[i]).c_str());
      std::printf("]\n");
      return;
    }
    if (serials.empty()) std::printf("no instrument found\n");
    for (const auto& serial : serials)
      std::printf("%-20s %s\n", serial.c_str(), getZeptickModel(serial).c_str());
  });
}

}  // namespace zeptick::cli
