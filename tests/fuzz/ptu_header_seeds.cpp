// Writes the seed corpus of ptu_header_fuzzer: the headers and first records of the shared real
// PTU recordings, if any, without the magic the fuzzer puts in front.
// Usage: ptu_header_seeds <directory>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

int main(int argc, char** argv) {
  if (argc != 2) return 2;
  const std::filesystem::path shared(ZEPTICK_SOURCE_DIR "/../shared/realdata");
  std::error_code ignored;  // without the recordings, the loop finds nothing
  int index = 0;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(shared, ignored)) {
    if (entry.path().extension() != ".ptu") continue;
    std::ifstream in(entry.path(), std::ios::binary);
    std::vector<char> bytes(12000);
    in.read(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    bytes.resize(static_cast<size_t>(in.gcount()));
    if (bytes.size() <= 8) continue;
    std::ofstream out(std::filesystem::path(argv[1]) / ("ptu-" + std::to_string(index++)),
                      std::ios::binary);
    out.write(bytes.data() + 8, static_cast<std::streamsize>(bytes.size() - 8));
  }
  return 0;
}
