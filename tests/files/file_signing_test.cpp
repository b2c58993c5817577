// Signed blocks: signing with the user's own key pair and verifying with its public key, and
// blocks forged to pass for a recording's own, replayed.

#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <openssl/pem.h>

#include <cstring>
#include <functional>
#include <random>
#include <stdexcept>
#include <string>

#include "file_format_testing.h"
#include "files/block_signing.h"
#include "zeptick/file_signing.h"

namespace zeptick::testing {
namespace {

struct KeyPair {
  std::string private_pem;
  std::string public_pem;
  std::string traditional_pem;  // "BEGIN EC PRIVATE KEY"
};

KeyPair generateKeyPair(const char* curve) {
  EVP_PKEY* key = EVP_EC_gen(curve);
  EXPECT_NE(key, nullptr);
  auto pem = [](auto write) {
    BIO* bio = BIO_new(BIO_s_mem());
    write(bio);
    char* data = nullptr;
    const long length = BIO_get_mem_data(bio, &data);
    std::string text(data, static_cast<size_t>(length));
    BIO_free(bio);
    return text;
  };
  KeyPair pair{pem([&](BIO* bio) {
                 PEM_write_bio_PrivateKey(bio, key, nullptr, nullptr, 0, nullptr, nullptr);
               }),
               pem([&](BIO* bio) { PEM_write_bio_PUBKEY(bio, key); }), pem([&](BIO* bio) {
                 PEM_write_bio_PrivateKey_traditional(bio, key, nullptr, nullptr, 0, nullptr,
                                                      nullptr);
               })};
  EVP_PKEY_free(key);
  return pair;
}

class FileKeys : public ::testing::Test {
 protected:
  void TearDown() override {
    setFileSigningKey("");
    setFileVerificationKey("");
  }
  // One block of three tags, signed with the key in force; how many blocks verify.
  void write(const std::string& name) {
    writeRecording(directory.file(name),
                   {{{timeTag(1, 10), timeTag(1, 20), timeTag(1, 30)}, 0, 100}}, {{1, -1}});
  }
  size_t verified(const std::string& name) { return readRecording(directory.file(name)).size(); }

  ScratchDirectory directory;
};

TEST_F(FileKeys, OwnKeyPairSignsAndOnlyItsPublicKeyVerifies) {
  const KeyPair mine = generateKeyPair("P-256");
  const KeyPair other_curve = generateKeyPair("P-384");
  setFileSigningKey(mine.private_pem);
  write("mine.ztbin");
  {
    LogCapture log;
    EXPECT_EQ(verified("mine.ztbin"), 0u);
    expectMessages(
        log, {"ECC signature is wrong", "Time tag block data with invalid hash or signature"});
  }
  setFileVerificationKey(mine.public_pem);
  setFileSigningKey(mine.traditional_pem);  // the "EC PRIVATE KEY" form serves as well
  // What is not a P-256 key is refused, and the key in force stays.
  for (const std::string& key :
       {std::string("not a key"), other_curve.private_pem, mine.public_pem}) {
    EXPECT_THROW(setFileSigningKey(key), std::invalid_argument);
  }
  for (const std::string& key :
       {other_curve.public_pem,
        std::string("-----BEGIN PUBLIC KEY-----\nAAAA\n-----END PUBLIC KEY-----\n")}) {
    EXPECT_THROW(setFileVerificationKey(key), std::invalid_argument);
  }
  write("still-mine.ztbin");
  {
    LogCapture log;
    EXPECT_EQ(verified("mine.ztbin"), 1u);
    EXPECT_EQ(verified("still-mine.ztbin"), 1u);
    EXPECT_TRUE(log.messages().empty());
  }
  // Back to the built-in pair on both sides.
  setFileSigningKey("");
  setFileVerificationKey("");
  write("builtin.ztbin");
  LogCapture log;
  EXPECT_EQ(verified("builtin.ztbin"), 1u);
  EXPECT_EQ(verified("mine.ztbin"), 0u);
}

// Blocks made to pass for ones of this recording, replayed. A changed signature or one made
// with another key is refused with its reason, and nothing from that block on reaches a
// measurement. A whole block moved in from another recording carries a good signature, since
// the signature covers the tag words only: replay cannot refuse it, but marks both joins with
// an error tag, so its tags never read as continuing ours.
TEST(ForgedBlocks, ReplayRefusesOrMarksEachWithItsMessage) {
  ScratchDirectory directory;
  const std::string path = directory.file("ours.ztbin");
  const std::string other = directory.file("other.ztbin");
  std::mt19937_64 rng(8);
  const std::vector<Block> blocks = randomStream(rng, 4, {1, 2});
  writeRecording(path, blocks, {{1, -1}, {2, -2}});
  // Another recording: the same tags on the other channels, a picosecond later.
  std::vector<Block> theirs = blocks;
  for (Block& block : theirs) {
    block.begin_time += 1;
    block.end_time += 1;
    for (Tag& tag : block.tags) tag = timeTag(3 - tag.channel, tag.time + 1);
  }
  writeRecording(other, theirs, {{1, -1}, {2, -2}}, {9, 9, 9, 9});
  const Bytes ours = readBytes(path);
  const Bytes foreign = readBytes(other);
  const size_t victim = 2;
  const RawBlock our_block = timeTagBlocks(ours)[victim];
  const RawBlock their_block = timeTagBlocks(foreign)[victim];
  const size_t header = our_block.offset + 16;
  const auto stored = [](const RawBlock& block) {
    return static_cast<ptrdiff_t>(16 + (block.payload.size() + 15) / 16 * 16);
  };

  // What replay makes of the intact recordings, cut at block boundaries: replay moves the
  // other recording to our clock, and applies the overflows, so the blocks alone do not tell.
  const auto played = [](const std::string& file, int64_t from, int64_t to) {
    Replay replay(2);
    std::vector<Tag> tags;
    for (const Tag& tag : replay.play(file))
      if (tag.time >= from && tag.time < to) tags.push_back(tag);
    return tags;
  };
  const int64_t cut = blocks[victim].begin_time;
  const int64_t resume = blocks[victim + 1].begin_time;
  const std::vector<Tag> before = played(path, 0, cut);
  std::vector<Tag> moved_in = before;
  moved_in.push_back(specialTag(Tag::Type::Error, cut));
  for (const Tag& tag : played(other, cut, resume)) moved_in.push_back(tag);
  moved_in.push_back(specialTag(Tag::Type::Error, resume));
  for (const Tag& tag : played(path, resume, blocks.back().end_time)) moved_in.push_back(tag);

  const detail::SigningKey stranger(generateKeyPair("P-256").private_pem);
  const std::vector<std::string> refused = {
      "ECC signature is wrong", "Time tag block data with invalid hash or signature",
      "ends early, after the data up to " + std::to_string(blocks[victim - 1].end_time) + " ps."};
  struct Forgery {
    const char* what;
    std::function<void(Bytes&)> edit;
    std::vector<Tag> delivered;
    std::vector<std::string> messages;
  };
  const std::vector<Forgery> forgeries = {
      {"the second half of the signature cut off",
       [&](Bytes& file) {
         std::fill_n(file.begin() + static_cast<ptrdiff_t>(header + 112), 32, 0);
       },
       before, refused},
      {"changed data, hashed again and signed with a foreign key",
       [&](Bytes& file) {
         file[header + 144] ^= 0x01;
         unsigned int length = 0;
         ASSERT_EQ(EVP_Digest(&file[header + 144], u32At(our_block.payload, 24) * 4,
                              &file[header + 48], &length, EVP_sha1(), nullptr),
                   1);
         uint8_t hash[32];
         uint8_t signature[64];
         std::copy_n(&file[header + 48], 32, hash);
         ASSERT_TRUE(stranger.sign(hash, signature));
         std::copy_n(signature, 64, &file[header + 80]);
       },
       before, refused},
      {"a block moved in from another recording",
       [&](Bytes& file) {
         const auto at = static_cast<ptrdiff_t>(our_block.offset);
         Bytes spliced(file.begin(), file.begin() + at);
         const auto from = foreign.begin() + static_cast<ptrdiff_t>(their_block.offset);
         spliced.insert(spliced.end(), from, from + stored(their_block));
         spliced.insert(spliced.end(), file.begin() + at + stored(our_block), file.end());
         file = spliced;
       },
       moved_in,
       {}},
  };
  for (const Forgery& forgery : forgeries) {
    SCOPED_TRACE(forgery.what);
    Bytes forged = ours;
    forgery.edit(forged);
    writeBytes(path, forged);
    LogCapture log;
    Replay replay(2);
    EXPECT_EQ(fields(replay.play(path)), fields(forgery.delivered));
    expectMessages(log, forgery.messages);
  }
}

}  // namespace
}  // namespace zeptick::testing
