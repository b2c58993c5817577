// Records one second of four inputs to a file, then replays the recording as fast as the
// computer allows and counts its tags per input: the recording holds what the instrument sent.
#include <zeptick/zeptick.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

int main(int argc, char** argv) {
  const std::string file =
      argc > 1
          ? argv[1]
          : (std::filesystem::temp_directory_path() / "zeptick_example_recording.ztbin").string();
  const std::vector<int> channels{1, 2, 3, 4};

  zeptick::attachDefaultEmulatedDevice();
  zeptick::Zeptick* tagger = zeptick::createZeptick();
  long long recorded = 0;
  {
    zeptick::FileWriter writer(tagger, file, channels);
    std::this_thread::sleep_for(std::chrono::seconds(1));
    writer.stop();
    recorded = static_cast<long long>(writer.getTotalEvents());
    std::printf("recorded %lld tags, %lld bytes, to %s\n",
                static_cast<long long>(writer.getTotalEvents()),
                static_cast<long long>(writer.getTotalSize()), file.c_str());
  }
  zeptick::freeZeptick(tagger);
  zeptick::detachEmulatedDevices();

  zeptick::ZeptickVirtual* replay = zeptick::createZeptickVirtual();
  long long replayed = 0;
  {
    zeptick::Countrate rate(replay, channels);
    replay->setReplaySpeed(-1);  // as fast as possible
    replay->replay(file);
    replay->waitForCompletion();
    std::vector<int64_t> totals;
    rate.getCountsTotal([&totals](size_t n) {
      totals.resize(n);
      return totals.data();
    });
    for (size_t i = 0; i < channels.size(); ++i) {
      std::printf("input %d: %lld tags replayed\n", channels[i], static_cast<long long>(totals[i]));
      replayed += static_cast<long long>(totals[i]);
    }
  }
  zeptick::freeZeptick(replay);
  if (argc <= 1) std::filesystem::remove(file);
  if (replayed != recorded) {
    std::printf("the replay gave %lld tags, the recording holds %lld\n", replayed, recorded);
    return 1;
  }
  return 0;
}
