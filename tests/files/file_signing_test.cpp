// Signed blocks: the user's own key pair, and a block of another recording spliced into ours.

#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <openssl/pem.h>

#include <stdexcept>
#include <string>

#include "file_format_testing.h"
#include "zeptick/file_signing.h"

namespace zeptick::testing {
namespace {

struct KeyPair {
  std::string private_pem, public_pem, traditional_pem;  // the last "BEGIN EC PRIVATE KEY"
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

// Ends with the built-in pair in force on both sides again, as every other test expects.
TEST(FileKeys, OwnKeyPairSignsAndOnlyItsPublicKeyVerifies) {
  ScratchDirectory directory;
  // One block of three tags, signed with the key in force; how many blocks verify.
  const auto write = [&](const std::string& name) {
    writeRecording(directory.file(name),
                   {{{timeTag(1, 10), timeTag(1, 20), timeTag(1, 30)}, 0, 100}}, {{1, -1}});
  };
  const auto verified = [&](const std::string& name) {
    return readRecording(directory.file(name)).size();
  };
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
  setFileSigningKey("");
  setFileVerificationKey("");
  write("builtin.ztbin");
  LogCapture log;
  EXPECT_EQ(verified("builtin.ztbin"), 1u);
  EXPECT_EQ(verified("mine.ztbin"), 0u);
}

// A whole block moved in from another recording carries a good signature, since the signature
// covers the tag words only: replay cannot refuse it, but marks both joins with an error tag, so
// its tags never read as continuing ours. (Blocks whose signature fails: the reader's tests prove
// the check, replay's file-by-file test what replay does with a refused block.)
TEST(ForgedBlocks, ABlockMovedInFromAnotherRecordingIsMarkedAtBothJoins) {
  ScratchDirectory directory;
  const std::string path = directory.file("ours.ztbin");
  const std::string other = directory.file("other.ztbin");
  writeRecording(
      path,
      {{{timeTag(1, 10)}, 0, 100}, {{timeTag(1, 150)}, 100, 200}, {{timeTag(1, 250)}, 200, 300}},
      {{1, -1}, {2, -2}});
  // The other recording's second block lies a picosecond later, so it neither begins where our
  // first block ends nor ends where our third begins.
  writeRecording(other, {{{}, 0, 101}, {{timeTag(2, 151)}, 101, 201}}, {{1, -1}, {2, -2}},
                 {9, 9, 9, 9});
  const Bytes ours = readBytes(path);
  const Bytes foreign = readBytes(other);
  const RawBlock mine = timeTagBlocks(ours)[1];
  const RawBlock theirs = timeTagBlocks(foreign)[1];
  const auto at = [](const Bytes& file, const RawBlock& block, bool end) {
    return file.begin() +
           static_cast<ptrdiff_t>(block.offset +
                                  (end ? 16 + (block.payload.size() + 15) / 16 * 16 : 0));
  };
  Bytes spliced(ours.begin(), at(ours, mine, false));
  spliced.insert(spliced.end(), at(foreign, theirs, false), at(foreign, theirs, true));
  spliced.insert(spliced.end(), at(ours, mine, true), ours.end());
  writeBytes(path, spliced);
  LogCapture log;
  Replay replay(2);
  EXPECT_TRUE(
      sameTags(replay.play(path), {timeTag(1, 10), marker(Tag::Type::Error, 100), timeTag(2, 150),
                                   marker(Tag::Type::Error, 200), timeTag(1, 250)}));
  EXPECT_TRUE(log.messages().empty());
}

}  // namespace
}  // namespace zeptick::testing
