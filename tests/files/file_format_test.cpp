// The bytes of written files checked against the layout by a decoder that reads fields at
// their byte offsets, and a round trip of a random stream through writer and reader.

#include <gtest/gtest.h>
#include <openssl/bio.h>
#include <openssl/bn.h>
#include <openssl/ec.h>
#include <openssl/evp.h>
#include <openssl/pem.h>

#include <random>
#include <set>

#include "file_format_testing.h"
#include "files/block_signing.h"
#include "files/file_format.h"

namespace zeptick::testing {
namespace {

constexpr int64_t k24 = int64_t{1} << 24;
constexpr int64_t k48 = int64_t{1} << 48;

std::vector<uint32_t> wordsOf(const Bytes& payload) {
  std::vector<uint32_t> words;
  for (size_t at = 144; at + 4 <= payload.size(); at += 4) words.push_back(u32At(payload, at));
  return words;
}

Bytes sha1Field(const uint8_t* data, size_t size) {
  Bytes field(32, 0);
  unsigned int length = 0;
  EXPECT_EQ(EVP_Digest(data, size, field.data(), &length, EVP_sha1(), nullptr), 1);
  EXPECT_EQ(length, 20u);
  return field;
}

// ECDSA P-256 over the 32-byte field, signature as raw r then s: checked with OpenSSL directly.
bool verifiesWith(const char* public_pem, const Bytes& hash, const Bytes& signature) {
  BIO* bio = BIO_new_mem_buf(public_pem, -1);
  EVP_PKEY* key = PEM_read_bio_PUBKEY(bio, nullptr, nullptr, nullptr);
  BIO_free(bio);
  ECDSA_SIG* sig = ECDSA_SIG_new();
  ECDSA_SIG_set0(sig, BN_bin2bn(signature.data(), 32, nullptr),
                 BN_bin2bn(signature.data() + 32, 32, nullptr));
  unsigned char* der = nullptr;
  const int der_length = i2d_ECDSA_SIG(sig, &der);
  EVP_PKEY_CTX* context = EVP_PKEY_CTX_new(key, nullptr);
  const bool ok =
      EVP_PKEY_verify_init(context) == 1 &&
      EVP_PKEY_verify(context, der, static_cast<size_t>(der_length), hash.data(), hash.size()) == 1;
  EVP_PKEY_CTX_free(context);
  OPENSSL_free(der);
  ECDSA_SIG_free(sig);
  EVP_PKEY_free(key);
  return ok;
}

TEST(FileFormat, MakeFileNameDropsOneExtensionAndNumbersSplits) {
  using ZeptickFile::makeFileName;
  EXPECT_EQ(makeFileName("data", 0), "data.ztbin");
  EXPECT_EQ(makeFileName("data.ztbin", 0), "data.ztbin");
  EXPECT_EQ(makeFileName("data", 3), "data.3.ztbin");
  EXPECT_EQ(makeFileName("dir/data.ztbin", 12), "dir/data.12.ztbin");
  // Only a name longer than the extension loses it.
  EXPECT_EQ(makeFileName(".ztbin", 1), ".ztbin.1.ztbin");
  EXPECT_EQ(makeFileName("a.ztbin.ztbin", 0), "a.ztbin.ztbin");
  EXPECT_EQ(makeFileName("data.ZTBIN", 0), "data.ZTBIN.ztbin");
}

TEST(FileFormat, WrittenFileMatchesTheLayoutByteForByte) {
  ScratchDirectory directory;
  const std::string path = directory.file("layout.ztbin");
  const int64_t begin = 1000;
  const int64_t t1 = begin + k24;          // exactly 2^24 after the first tag
  const int64_t t2 = t1 + 5;               // error tag
  const int64_t t3 = t2 + k48;             // exactly 2^48
  const int64_t overflow_begin = t3 + 10;  // overflow from here
  const int64_t overflow_end = overflow_begin + k24 + 3 + 4;
  const int64_t end = overflow_end + 1 + 100;
  const std::vector<Tag> tags = {
      timeTag(1, begin),
      timeTag(2, t1),
      timeTag(5, t1 + 1),  // not in the map: no word
      specialTag(Tag::Type::Error, t2),
      timeTag(-1, t3),
      timeTag(1, t3 - 1),   // earlier than the last tag: no word
      missedTag(1, 9, t3),  // outside an overflow: no word
      specialTag(Tag::Type::OverflowBegin, overflow_begin),
      missedTag(2, 77, overflow_begin),
      timeTag(1, overflow_begin + k24 + 3),  // in overflow: only its high word stays
      specialTag(Tag::Type::OverflowEnd, overflow_end),
      timeTag(2, overflow_end + 1),
  };
  uint64_t events = 0;
  {
    ZeptickFileWriter writer(path, 0, {0x11111111, 0x22222222, 0x33333333, 0x44444444});
    writer.writeConfiguration("");
    writer.writeChannelMap({{1, -1}, {2, -2}, {1, -1}, {-1, 1}});
    writer.writeMarker("x");
    writer.writeMarker("0123456789abcdef");
    auto* state = writer.encodeBlock(tags, begin, end);
    ZeptickFileWriter::finishBlock(state);
    writer.writeBlock(state);
    writer.recycleBlock(state);
    events = writer.getEventsWritten();
  }
  const Bytes file = readBytes(path);
  const std::vector<RawBlock> blocks = walkBlocks(file);
  ASSERT_EQ(blocks.size(), 7u);
  std::vector<uint32_t> types;
  for (const RawBlock& block : blocks) types.push_back(block.type);
  EXPECT_EQ(types, (std::vector<uint32_t>{2, 5, 3, 6, 6, 4, 1}));

  const Bytes& header = blocks[0].payload;
  ASSERT_EQ(header.size(), 32u);
  // alignment, version, required_version, reserved, then the identifier
  const uint32_t expected_header[] = {16, 1, 1, 0, 0x11111111, 0x22222222, 0x33333333, 0x44444444};
  for (size_t i = 0; i < 8; ++i) EXPECT_EQ(u32At(header, 4 * i), expected_header[i]) << i;

  EXPECT_TRUE(blocks[1].payload.empty());  // empty text: no padding either
  EXPECT_EQ(blocks[2].offset, blocks[1].offset + 16);
  EXPECT_EQ(blocks[4].offset, blocks[3].offset + 32);  // 1 byte + 15 padding
  EXPECT_EQ(blocks[5].offset, blocks[4].offset + 32);  // 16 bytes, no padding
  EXPECT_EQ(std::string(blocks[4].payload.begin(), blocks[4].payload.end()), "0123456789abcdef");

  // The repeated channel has one entry; indices in order of first appearance.
  const Bytes& map = blocks[2].payload;
  ASSERT_EQ(map.size(), 16u + 3 * 16);
  EXPECT_EQ(u32At(map, 0), 3u);
  const int32_t expected_map[3][3] = {{0, 1, -1}, {1, 2, -2}, {2, -1, 1}};
  for (size_t i = 0; i < 3; ++i) {
    for (size_t field = 0; field < 3; ++field) {
      EXPECT_EQ(static_cast<int32_t>(u32At(map, 16 + 16 * i + 4 * field)), expected_map[i][field]);
    }
    EXPECT_EQ(u32At(map, 16 + 16 * i + 12), 0u);
  }

  const Bytes& block = blocks[5].payload;
  ASSERT_GE(block.size(), 144u);
  EXPECT_EQ(i64At(block, 0), begin);
  EXPECT_EQ(i64At(block, 8), end);
  EXPECT_EQ(i64At(block, 16), (overflow_begin - begin) + (end - overflow_end));  // valid_time
  const std::vector<uint32_t> expected_words = {
      shortTag(0, 0),   shortTag(1, 251), shortTag(0, 1),    shortTag(5, 255),
      shortTag(1, 252), shortTag(0, 2),   shortTag(10, 253), shortTag(77, 1),
      shortTag(1, 251), shortTag(7, 254), shortTag(1, 1)};
  EXPECT_EQ(u32At(block, 24), expected_words.size());      // word_count
  EXPECT_EQ(u32At(block, 28), expected_words.size() * 4);  // stored_size: small blocks stay raw
  EXPECT_EQ(u32At(block, 32), 1u);                         // time_unit
  EXPECT_EQ(u32At(block, 36), 0u);                         // compression
  EXPECT_EQ(u32At(block, 40), 1u);                         // signature_kind
  EXPECT_EQ(block[44], 0);                                 // overflow_at_begin
  EXPECT_EQ(block[45] | block[46] | block[47], 0);
  EXPECT_EQ(wordsOf(block), expected_words);
  EXPECT_EQ(events, 8u);  // the high-bit words stand for no tag

  const Bytes hash = sha1Field(block.data() + 144, block.size() - 144);
  EXPECT_EQ(Bytes(block.begin() + 48, block.begin() + 80), hash);
  EXPECT_TRUE(verifiesWith(detail::kBuiltinPublicKeyPem, hash,
                           Bytes(block.begin() + 80, block.begin() + 144)));
}

TEST(FileFormat, OverflowStateAndValidTimeCarryAcrossBlocks) {
  ScratchDirectory directory;
  const std::string path = directory.file("carry.ztbin");
  writeRecording(path,
                 {{{specialTag(Tag::Type::OverflowBegin, 40)}, 0, 100},
                  {{timeTag(1, 150), specialTag(Tag::Type::OverflowEnd, 160)}, 100, 200},
                  {{}, 200, 300}},
                 {{1, -1}});
  const std::vector<RawBlock> blocks = timeTagBlocks(readBytes(path));
  ASSERT_EQ(blocks.size(), 3u);
  // overflow_at_begin and valid_time: valid until 40, again from 160.
  const std::pair<int, int64_t> expected[] = {{0, 40}, {1, 40}, {0, 100}};
  for (size_t b = 0; b < 3; ++b) {
    EXPECT_EQ(blocks[b].payload[44], expected[b].first) << b;
    EXPECT_EQ(i64At(blocks[b].payload, 16), expected[b].second) << b;
  }
  // The tag at 150 fell inside the overflow: only the overflow end remains.
  EXPECT_EQ(wordsOf(blocks[1].payload), (std::vector<uint32_t>{shortTag(60, 254)}));
  // An empty block: no words, yet a digest (of nothing) and a valid signature.
  const Bytes& empty = blocks[2].payload;
  EXPECT_EQ(u32At(empty, 24) | u32At(empty, 28), 0u);
  ASSERT_EQ(empty.size(), 144u);
  const Bytes hash = sha1Field(nullptr, 0);
  EXPECT_EQ(Bytes(empty.begin() + 48, empty.begin() + 80), hash);
  EXPECT_TRUE(
      verifiesWith(detail::kBuiltinPublicKeyPem, hash, Bytes(empty.begin() + 80, empty.end())));
}

TEST(FileFormat, ArbitraryStreamsKeepWhatTheEncodingDefines) {
  ScratchDirectory directory;
  std::mt19937_64 rng(7);
  std::vector<Block> blocks = makeRandomBlocks(rng, 300, {1, 2, 3, -1, 9});
  for (size_t b = 100; b < 300; b += 50) {  // some blocks large enough to be compressed
    for (int64_t i = 0; i < 1500; ++i) {
      blocks[b].tags.push_back(timeTag(1 + i % 3, blocks[b].end_time - 1));
    }
  }
  // Shuffle in what the encoder must drop or cope with: out-of-order times, missed events out
  // of overflows, time tags inside them, an unknown tag type, and huge jumps.
  std::uniform_int_distribution<int> roll(0, 99);
  for (Block& block : blocks) {
    for (Tag& tag : block.tags) {
      const int r = roll(rng);
      if (r < 3) tag.time -= 1000;
      if (r == 3) tag.type = Tag::Type::MissedEvents;
      if (r == 4) tag.type = static_cast<Tag::Type>(9);
    }
    if (roll(rng) < 5) block.tags.push_back(timeTag(2, block.end_time - 1));
    if (roll(rng) < 3) {
      block.end_time += k48 + k24 * 5;
      block.tags.push_back(timeTag(1, block.end_time - 1));
    }
  }
  for (size_t b = 1; b < blocks.size(); ++b) {
    const int64_t shift = blocks[b - 1].end_time - blocks[b].begin_time;
    blocks[b].begin_time += shift;
    blocks[b].end_time += shift;
    for (Tag& tag : blocks[b].tags) tag.time += shift;
  }
  const std::string path = directory.file("arbitrary.ztbin");
  writeRecording(path, blocks, {{1, -1}, {2, -2}, {-1, 1}});
  const std::vector<Block> read = readRecording(path);
  ASSERT_EQ(read.size(), blocks.size());
  bool overflow = false;
  for (size_t b = 0; b < blocks.size(); ++b) {
    const std::vector<Tag> expected =
        expectedAfterFile(blocks[b].tags, blocks[b].begin_time, {1, 2, -1}, overflow);
    ASSERT_EQ(fields(read[b].tags), fields(expected)) << "block " << b;
  }
  size_t compressed = 0;
  for (const RawBlock& block : timeTagBlocks(readBytes(path))) {
    compressed += u32At(block.payload, 36) == 1;
  }
  EXPECT_EQ(compressed, 4u);
}

}  // namespace
}  // namespace zeptick::testing
