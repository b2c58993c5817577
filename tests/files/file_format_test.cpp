// The bytes of written files checked against the layout by a decoder that reads fields at
// their byte offsets, and a round trip of a random stream through writer and reader.

#include <gtest/gtest.h>
#include <openssl/bio.h>
#include <openssl/bn.h>
#include <openssl/ec.h>
#include <openssl/evp.h>
#include <openssl/pem.h>

#include <random>

#include "file_format_testing.h"
#include "files/block_signing.h"

namespace zeptick::testing {
namespace {

constexpr int64_t k24 = int64_t{1} << 24;
constexpr int64_t k48 = int64_t{1} << 48;

// The 32-bit words of `payload` from byte `from` (by default the tag words) to `to`.
std::vector<uint32_t> wordsOf(const Bytes& payload, size_t from = 144, size_t to = SIZE_MAX) {
  std::vector<uint32_t> words;
  for (size_t at = from; at + 4 <= std::min(to, payload.size()); at += 4) {
    words.push_back(u32At(payload, at));
  }
  return words;
}

// The SHA-1 of the words in a 32-byte field, and an ECDSA P-256 signature of that field as raw
// r then s, checked with OpenSSL directly.
void expectSigned(const Bytes& block) {
  Bytes hash(32, 0);
  unsigned int length = 0;
  ASSERT_EQ(
      EVP_Digest(block.data() + 144, block.size() - 144, hash.data(), &length, EVP_sha1(), nullptr),
      1);
  EXPECT_EQ(Bytes(block.begin() + 48, block.begin() + 80), hash);
  BIO* bio = BIO_new_mem_buf(detail::kBuiltinPublicKeyPem, -1);
  EVP_PKEY* key = PEM_read_bio_PUBKEY(bio, nullptr, nullptr, nullptr);
  BIO_free(bio);
  ECDSA_SIG* sig = ECDSA_SIG_new();
  ECDSA_SIG_set0(sig, BN_bin2bn(&block[80], 32, nullptr), BN_bin2bn(&block[112], 32, nullptr));
  unsigned char* der = nullptr;
  const int der_length = i2d_ECDSA_SIG(sig, &der);
  EVP_PKEY_CTX* context = EVP_PKEY_CTX_new(key, nullptr);
  EXPECT_EQ(EVP_PKEY_verify_init(context), 1);
  EXPECT_EQ(EVP_PKEY_verify(context, der, static_cast<size_t>(der_length), hash.data(), 32), 1);
  EVP_PKEY_CTX_free(context);
  OPENSSL_free(der);
  ECDSA_SIG_free(sig);
  EVP_PKEY_free(key);
}

TEST(FileFormat, NamesAndBytesMatchTheLayoutAndArbitraryStreamsKeepWhatTheEncodingDefines) {
  // Only a name longer than the extension loses it, and only in lower case.
  const std::vector<std::tuple<std::string, uint32_t, std::string>> cases = {
      {"data", 0, "data.ztbin"},
      {"data.ztbin", 0, "data.ztbin"},
      {"data", 3, "data.3.ztbin"},
      {"dir/data.ztbin", 12, "dir/data.12.ztbin"},
      {".ztbin", 1, ".ztbin.1.ztbin"},
      {"a.ztbin.ztbin", 0, "a.ztbin.ztbin"},
      {"data.ZTBIN", 0, "data.ZTBIN.ztbin"}};
  for (const auto& [base, index, name] : cases) {
    EXPECT_EQ(ZeptickFile::makeFileName(base, index), name) << base << " " << index;
  }

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
      marker(Tag::Type::Error, t2),
      timeTag(-1, t3),
      timeTag(1, t3 - 1),   // earlier than the last tag: no word
      missedTag(1, t3, 9),  // outside an overflow: no word
      marker(Tag::Type::OverflowBegin, overflow_begin),
      missedTag(2, overflow_begin, 77),
      timeTag(1, overflow_begin + k24 + 3),  // in overflow: only its high word stays
      marker(Tag::Type::OverflowEnd, overflow_end),
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
  const std::vector<RawBlock> written = walkBlocks(readBytes(path));
  ASSERT_EQ(written.size(), 7u);
  std::vector<uint32_t> types;
  for (const RawBlock& block : written) types.push_back(block.type);
  EXPECT_EQ(types, (std::vector<uint32_t>{2, 5, 3, 6, 6, 4, 1}));

  // alignment, version, required_version, reserved, then the identifier
  const std::vector<uint32_t> header = {16,         1,          1,          0,
                                        0x11111111, 0x22222222, 0x33333333, 0x44444444};
  EXPECT_EQ(wordsOf(written[0].payload, 0), header);

  EXPECT_TRUE(written[1].payload.empty());  // empty text: no padding either
  EXPECT_EQ(written[2].offset, written[1].offset + 16);
  EXPECT_EQ(written[4].offset, written[3].offset + 32);  // 1 byte + 15 padding
  EXPECT_EQ(written[5].offset, written[4].offset + 32);  // 16 bytes, no padding
  EXPECT_EQ(std::string(written[4].payload.begin(), written[4].payload.end()), "0123456789abcdef");

  // The repeated channel has one entry; indices in order of first appearance.
  const std::vector<uint32_t> map = wordsOf(written[2].payload, 0);
  EXPECT_EQ(std::vector<int32_t>(map.begin(), map.end()),
            (std::vector<int32_t>{3, 0, 0, 0, 0, 1, -1, 0, 1, 2, -2, 0, 2, -1, 1, 0}));

  const Bytes& payload = written[5].payload;
  ASSERT_GE(payload.size(), 144u);
  EXPECT_EQ(i64At(payload, 0), begin);
  EXPECT_EQ(i64At(payload, 8), end);
  EXPECT_EQ(i64At(payload, 16), (overflow_begin - begin) + (end - overflow_end));  // valid_time
  const std::vector<uint32_t> expected_words = {
      shortTag(0, 0),   shortTag(1, 251), shortTag(0, 1),    shortTag(5, 255),
      shortTag(1, 252), shortTag(0, 2),   shortTag(10, 253), shortTag(77, 1),
      shortTag(1, 251), shortTag(7, 254), shortTag(1, 1)};
  // word_count, stored_size (small blocks stay raw), time_unit, compression, signature_kind,
  // then overflow_at_begin and three reserved bytes.
  EXPECT_EQ(wordsOf(payload, 24, 48), (std::vector<uint32_t>{11, 44, 1, 0, 1, 0}));
  EXPECT_EQ(wordsOf(payload), expected_words);
  EXPECT_EQ(events, 8u);  // the high-bit words stand for no tag
  expectSigned(payload);

  // Arbitrary streams keep what the encoding defines.
  std::mt19937_64 rng(7);
  std::vector<Block> blocks = randomStream(rng, 300, {1, 2, 3, -1, 9});
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
  writeRecording(path, blocks, {{1, -1}, {2, -2}, {-1, 1}});
  const std::vector<Block> read = readRecording(path);
  ASSERT_EQ(read.size(), blocks.size());
  const std::vector<RawBlock> raw = timeTagBlocks(readBytes(path));
  bool overflow = false;
  size_t compressed = 0;
  for (size_t b = 0; b < blocks.size(); ++b) {
    SCOPED_TRACE(b);
    // The header says whether the block begins in an overflow, and how much of its span lies
    // outside one.
    EXPECT_EQ(raw[b].payload[44], overflow ? 1 : 0);
    bool inside = overflow;
    const std::vector<Tag> expected =
        expectedAfterFile(blocks[b].tags, blocks[b].begin_time, {1, 2, -1}, overflow);
    ASSERT_TRUE(sameTags(read[b].tags, expected));
    // The valid time sums the spans outside overflows; a repeated mark changes nothing.
    int64_t valid = 0, mark = blocks[b].begin_time;
    for (const Tag& tag : expected) {
      const bool begins = tag.type == Tag::Type::OverflowBegin;
      if (begins == inside || (!begins && tag.type != Tag::Type::OverflowEnd)) continue;
      if (begins) valid += tag.time - mark;
      mark = tag.time;
      inside = begins;
    }
    EXPECT_EQ(i64At(raw[b].payload, 16), valid + (inside ? 0 : blocks[b].end_time - mark));
    if (u32At(raw[b].payload, 36) == 0) {
      expectSigned(raw[b].payload);
    } else {
      ++compressed;
    }
  }
  EXPECT_EQ(compressed, 4u);
}

}  // namespace
}  // namespace zeptick::testing
