#include "emulator/stream/stream_model.h"

#include <algorithm>
#include <bit>
#include <chrono>
#include <cmath>
#include <cstring>
#include <limits>
#include <mutex>
#include <thread>
#include <utility>

#include <nlohmann/json.hpp>

#include "device/device_words.h"
#include "emulator/stream/stream_engine.h"
#include "emulator/stream/stream_output.h"

namespace zeptick::emulator {

namespace {
// A board held back by its group gives up the processor this long before it pads a read.
constexpr auto kGroupWait = std::chrono::microseconds(200);
}  // namespace

static_assert(std::endian::native == std::endian::little,
              "stream words are copied out in native order, which must be the board's");

// Paced: the stream starts when the model is built (a board starts streaming
// once its firmware is loaded), and cycle c of the stream becomes available c
// clock periods of real time later. A read produces whole windows of the
// stream as they come due and sleeps, unlocked, until the next one is. A real
// board's firmware sends a partly filled USB transfer after a short wait, so a
// large read on a quiet stream returns in time proportional to its size, not
// to the words it might hold.
struct StreamModel::State {
  using Clock = std::chrono::steady_clock;

  State(const StreamParameters& parameters, const nlohmann::json& sources)
      : engine(parameters, sources),
        paced(parameters.paced),
        ps_per_clock(parameters.ps_per_clock),
        pace_ppm(std::max<int64_t>(1, std::llround(parameters.pace * 1e6))),
        origin(Clock::now()),
        serial(parameters.serial) {
    if (parameters.synchronizer && parameters.synchronizer->drives(serial)) {
      synchronizer = parameters.synchronizer;
      std::shared_ptr<Synchronizer> counting = synchronizer;
      engine.setSync([counting](uint64_t period) { return counting->counter(period); });
    }
  }

  /// The period the stream has reached, counted from its start. REQUIRES: mutex held.
  uint64_t period() const {
    return static_cast<uint64_t>(engine.originClocks() + engine.position()) /
           StreamOutput::kPeriodClocks;
  }

  /// Cycles of real time since the start, in the engine's coordinates.
  /// REQUIRES: mutex held.
  int64_t dueClock() const {
    __extension__ using Wide = __int128;
    const auto ns = std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now() - origin);
    const Wide clocks =
        static_cast<Wide>(ns.count()) * 1000 * pace_ppm / (Wide{ps_per_clock} * 1000000);
    return static_cast<int64_t>(clocks) - engine.originClocks();
  }

  /// The real time at which engine cycle `clock` is due. REQUIRES: mutex held.
  Clock::time_point dueTime(int64_t clock) const {
    __extension__ using Wide = __int128;
    const Wide ps = static_cast<Wide>(clock + engine.originClocks()) * ps_per_clock * 1000000;
    const auto ns =
        static_cast<int64_t>((ps + Wide{pace_ppm} * 1000 - 1) / (Wide{pace_ppm} * 1000));
    return origin + std::chrono::nanoseconds(ns);
  }

  /// Writes the fence byte into every rollover word of the loop. REQUIRES: mutex held.
  void fenceLoop() {
    for (const size_t at : loop_rollovers) {
      loop[at] = (loop[at] & ~uint32_t{0xFF0000}) | (uint32_t{fence} << 16);
    }
  }

  /// Behind a Synchronizer each pass of the loop must carry a counter that goes on counting, or
  /// the host would see the Synchronizer restart at every pass: the loop's sync words get the
  /// counter they were recorded with, plus the loop's periods once per pass. REQUIRES: mutex held.
  void syncLoop() {
    const uint32_t offset = loop_periods * static_cast<uint32_t>(loop_pass);
    for (const SyncByte& sync : loop_sync) {
      const uint32_t byte = ((sync.counter + offset) >> (8 * sync.byte)) & 0xFF;
      loop[sync.at] = (loop[sync.at] & ~uint32_t{0xFF0000}) | (byte << 16);
    }
  }

  /// One sync word of the loop: where it is, which byte of the counter it carries, and the
  /// whole counter of its group as recorded.
  struct SyncByte {
    size_t at;
    unsigned byte;
    uint32_t counter;
  };

  std::mutex mutex;
  StreamEngine engine;  // guarded by mutex
  // A looped recording replaces the engine's words while it is not empty; all guarded by mutex.
  std::vector<uint32_t> loop;
  std::vector<size_t> loop_rollovers;
  std::vector<SyncByte> loop_sync;
  uint32_t loop_periods = 0;  ///< rollover periods the loop spans, by its sync counters
  uint64_t loop_pass = 0;
  size_t loop_at = 0;
  uint8_t fence = 0;
  const bool paced;
  const int64_t ps_per_clock;
  /// Stream time per real time in millionths: below a million every clock takes longer.
  const int64_t pace_ppm;
  const Clock::time_point origin;
  const std::string serial;
  std::shared_ptr<Synchronizer> synchronizer;  ///< null unless cabled to one
};

StreamModel::StreamModel(const StreamParameters& parameters, const nlohmann::json& sources)
    : state(std::make_unique<State>(parameters, sources)) {}

StreamModel::~StreamModel() = default;

void StreamModel::configure(const FirmwareSetup& setup) {
  std::lock_guard<std::mutex> lock(state->mutex);
  state->engine.configure(setup);
  state->fence = setup.fence;
  state->fenceLoop();
}

void StreamModel::loopRecording(std::vector<uint32_t> words) {
  std::lock_guard<std::mutex> lock(state->mutex);
  state->loop = std::move(words);
  state->loop_rollovers.clear();
  state->loop_sync.clear();
  state->loop_at = 0;
  state->loop_pass = 0;
  constexpr unsigned kFirstSyncCode = 58;
  std::vector<size_t> groups{0};  // where each rollover's sync words start in loop_sync
  for (size_t at = 0; at < state->loop.size(); ++at) {
    const NativeTag word{state->loop[at]};
    if (word.kind() != 1) continue;
    if (word.code() == 62) {
      state->loop_rollovers.push_back(at);
      groups.push_back(state->loop_sync.size());
    } else if (word.code() >= kFirstSyncCode && word.code() < kFirstSyncCode + 4) {
      const unsigned byte = word.code() - kFirstSyncCode;
      state->loop_sync.push_back({at, byte, uint32_t{word.bin()} << (8 * byte)});
    }
  }
  groups.push_back(state->loop_sync.size());
  for (size_t g = 0; g + 1 < groups.size(); ++g) {
    uint32_t counter = 0;
    for (size_t i = groups[g]; i < groups[g + 1]; ++i) counter |= state->loop_sync[i].counter;
    for (size_t i = groups[g]; i < groups[g + 1]; ++i) state->loop_sync[i].counter = counter;
  }
  state->loop_periods = state->loop_sync.empty() ? 0
                                                 : state->loop_sync.back().counter -
                                                       state->loop_sync.front().counter + 1;
  state->fenceLoop();
}

long StreamModel::read(unsigned char* data, long bytes, long block_bytes) {
  if (data == nullptr || bytes < 4) return 0;
  using Clock = State::Clock;
  const auto words = static_cast<size_t>(bytes / 4);
  // Words per USB transfer, or 0 when transfers are never padded.
  const size_t block = state->paced && block_bytes >= 4 ? static_cast<size_t>(block_bytes / 4) : 0;
  size_t filled = 0;
  size_t transfer = 0;  // the transfer being filled, counted in this read
  Clock::time_point flush_at = Clock::now() + kFlushWait;
  std::unique_lock<std::mutex> lock(state->mutex);
  if (!state->loop.empty()) {
    const std::vector<uint32_t>& loop = state->loop;
    while (filled < words) {
      const size_t n = std::min(words - filled, loop.size() - state->loop_at);
      std::memcpy(data + 4 * filled, loop.data() + state->loop_at, 4 * n);
      filled += n;
      state->loop_at = (state->loop_at + n) % loop.size();
      if (state->loop_at == 0 && !state->loop_sync.empty()) {
        ++state->loop_pass;
        state->syncLoop();
      }
    }
    return static_cast<long>(words * 4);
  }
  StreamEngine& engine = state->engine;
  for (;;) {
    filled += engine.take(data + 4 * filled, words - filled);
    if (filled == words) break;
    if (!state->paced) {
      if (state->synchronizer && !state->synchronizer->mayAdvance(state->serial, state->period())) {
        // One clock drives the whole group: a board ahead of the others waits for them.
        std::memset(data + 4 * filled, 0, 4 * (words - filled));
        lock.unlock();
        std::this_thread::sleep_for(kGroupWait);
        return static_cast<long>(words * 4);
      }
      if (engine.quiet()) {
        // With nothing ever to send, a free-running board would otherwise fill every read
        // with runs of empty periods and race its clock to overflow within seconds. One
        // period per read keeps fences flowing; fillers, which the host skips, pad the rest.
        constexpr int64_t kPeriod = StreamOutput::kPeriodClocks;
        int64_t until = (engine.position() / kPeriod + 1) * kPeriod + 1;
        if (state->synchronizer) {
          // A quiet member of a group keeps up with the others instead of holding them back.
          const auto others =
              static_cast<int64_t>(state->synchronizer->furthestOther(state->serial));
          until = std::max(until, (others - engine.originClocks() / kPeriod) * kPeriod + 1);
        }
        while (engine.advance(until)) {
        }
        filled += engine.take(data + 4 * filled, words - filled);
        std::memset(data + 4 * filled, 0, 4 * (words - filled));
        if (state->synchronizer) state->synchronizer->report(state->serial, state->period());
        break;
      }
      engine.advance(std::numeric_limits<int64_t>::max());
      if (state->synchronizer) state->synchronizer->report(state->serial, state->period());
      continue;
    }
    if (block != 0 && filled / block != transfer) {
      // A new transfer starts waiting for its words.
      transfer = filled / block;
      flush_at = Clock::now() + kFlushWait;
    }
    if (engine.advance(state->dueClock())) continue;
    const Clock::time_point now = Clock::now();
    if (block != 0 && now >= flush_at) {
      // Everything due so far is in; the rest of the transfer goes out as
      // fillers, which the host skips. Later words keep their order and times.
      const size_t end = std::min(words, (transfer + 1) * block);
      std::memset(data + 4 * filled, 0, 4 * (end - filled));
      filled = end;
      continue;
    }
    Clock::time_point wake = state->dueTime(engine.nextWindowEnd());
    if (block != 0) wake = std::min(wake, flush_at);
    lock.unlock();
    std::this_thread::sleep_until(wake);
    lock.lock();
  }
  return static_cast<long>(words * 4);
}

std::vector<int64_t> StreamModel::binUpperEdges(int index) const {
  // The profiles never change after construction, so no lock is needed.
  return state->engine.binUpperEdges(index);
}

void StreamModel::injectError() {
  std::lock_guard<std::mutex> lock(state->mutex);
  state->engine.injectError();
}

void StreamModel::dropSyncByte(int byte) {
  std::lock_guard<std::mutex> lock(state->mutex);
  state->engine.dropSyncByte(byte);
}

void StreamModel::skewSyncWord(unsigned tick) {
  std::lock_guard<std::mutex> lock(state->mutex);
  state->engine.skewSyncWord(tick);
}

int64_t StreamModel::inputLatency(int input) const { return state->engine.inputLatency(input); }

}  // namespace zeptick::emulator
