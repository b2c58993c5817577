#include <atomic>
#include <chrono>
#include <cstring>
#include <thread>
#include <vector>

#include "board_fixture.h"

namespace zeptick::emulator::testing {
namespace {

using BoardPipeTest = BoardTest;

long readPipe(const device::FrontPanelApi& fp, okFrontPanel_HANDLE handle,
              std::vector<unsigned char>& buffer, int block = 1024) {
  return fp.okFrontPanel_ReadFromBlockPipeOut(handle, 0xA0, block, static_cast<long>(buffer.size()),
                                              buffer.data());
}

// The fence byte of the first rollover-with-fence word (code 62, kind 1), or -1.
int firstFence(const std::vector<unsigned char>& buffer, long bytes) {
  for (long i = 0; i + 4 <= bytes; i += 4) {
    uint32_t word;
    std::memcpy(&word, &buffer[i], 4);
    if ((word >> 30) == 1 && ((word >> 24) & 63) == 62) return (word >> 16) & 0xFF;
  }
  return -1;
}

TEST_F(BoardPipeTest, ReadsCheckTheirArgumentsAndRunOnlyAfterStart) {
  auto board = loadedBoard({{"pacing", "free"}});
  std::vector<unsigned char> buffer(4096);
  EXPECT_EQ(readPipe(fp, handle, buffer), ok_Timeout);  // not started yet
  setWire(0x0D, 1);
  update();
  EXPECT_EQ(readPipe(fp, handle, buffer), 4096);
  EXPECT_EQ(readPipe(fp, handle, buffer, 3000), ok_InvalidBlockSize);
  EXPECT_EQ(readPipe(fp, handle, buffer, 0), ok_InvalidBlockSize);
  EXPECT_EQ(fp.okFrontPanel_ReadFromBlockPipeOut(handle, 0xA0, 2, 4094, buffer.data()),
            ok_InvalidBlockSize);
  EXPECT_EQ(fp.okFrontPanel_ReadFromBlockPipeOut(handle, 0xA1, 1024, 1024, buffer.data()),
            ok_InvalidEndpoint);

  board->failReads(2);
  board->shortReads(1);
  EXPECT_LT(readPipe(fp, handle, buffer), 0);
  EXPECT_LT(readPipe(fp, handle, buffer), 0);
  EXPECT_EQ(readPipe(fp, handle, buffer), 2048);
  EXPECT_EQ(readPipe(fp, handle, buffer), 4096);
}

TEST_F(BoardPipeTest, RolloverWordsCarryTheFenceWire) {
  loadedBoard({{"pacing", "free"}});
  setWire(0x0D, 1);
  setWire(0x08, 0x3C7);
  update();
  std::vector<unsigned char> buffer(1 << 16);
  int fence = -1;
  for (int read = 0; read < 64 && fence < 0; ++read) {
    fence = firstFence(buffer, readPipe(fp, handle, buffer));
  }
  EXPECT_EQ(fence, 0xC7);
  setWire(0x08, 0x3C8);
  update();
  for (int read = 0; read < 64 && fence != 0xC8; ++read) {
    fence = firstFence(buffer, readPipe(fp, handle, buffer));
  }
  EXPECT_EQ(fence, 0xC8);
}

// A paced read waits for the words to exist; control calls from another thread
// must get through meanwhile, as the host's sensor report does during acquisition.
TEST_F(BoardPipeTest, PacedReadDoesNotBlockControlCalls) {
  loadedBoard();
  setWire(0x0D, 1);
  update();
  // A quiet board pads each 1024-byte transfer after about 1 ms, so 262144
  // words take about a second.
  std::vector<unsigned char> buffer(4 * 262144);
  std::atomic<bool> done{false};
  long result = 0;
  std::thread reader([&] {
    result = readPipe(fp, handle, buffer);
    done = true;
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  for (int i = 0; i < 50; ++i) {
    ASSERT_EQ(fp.okFrontPanel_UpdateWireOuts(handle), ok_NoError);
    uint32_t status = 0;
    ASSERT_EQ(fp.okFrontPanel_ReadRegister(handle, 4, &status), ok_NoError);
  }
  EXPECT_FALSE(done.load()) << "control calls waited for the paced read";
  reader.join();
  EXPECT_EQ(result, 4 * 262144);
}

}  // namespace
}  // namespace zeptick::emulator::testing
