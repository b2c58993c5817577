// zeptick import IN --to OUT.ztbin: another instrument's recording (PTU, SPC, Photon-HDF5) into
// our signed format, so that old data gain a digest and a signature in every block. "import"
// because the data come into our format; "export" takes them out of it.

#include <cstdio>
#include <memory>
#include <stdexcept>
#include <string>

#include "commands.h"
#include "units.h"
#include "zeptick/file_signing.h"
#include "zeptick/recording_conversion.h"

namespace zeptick::cli {

namespace {

struct ImportOptions {
  std::string in, to, signing_key;
};

}  // namespace

void addImport(CLI::App& app) {
  auto* cmd = app.add_subcommand(
      "import",
      "Convert another instrument's recording (PTU, SPC with its .set, Photon-HDF5) into a "
      "signed .ztbin recording (OUT.ztbin and OUT.1.ztbin) with the tags a replay gives");
  auto o = std::make_shared<ImportOptions>();
  cmd->add_option("IN", o->in, "the recording to convert, told by its content")->required();
  cmd->add_option("--to", o->to, "name of the new recording (.ztbin)")->required();
  cmd->add_option("--signing-key", o->signing_key,
                  "P-256 private key (PEM) to sign blocks with (default: the built-in)");
  cmd->callback([o] {
    if (!o->signing_key.empty()) setFileSigningKey(readText(o->signing_key));
    const uint64_t tags = convertToZtbin(o->in, o->to);
    std::printf("%s: %llu tags from %s\n", o->to.c_str(), static_cast<unsigned long long>(tags),
                o->in.c_str());
  });
}

}  // namespace zeptick::cli
