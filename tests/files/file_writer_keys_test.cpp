// Signing with the user's own key pair, and verifying with the user's own public key.

#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <openssl/pem.h>

#include <stdexcept>

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

std::string drain(BIO* bio) {
  char* data = nullptr;
  const long length = BIO_get_mem_data(bio, &data);
  std::string text(data, static_cast<size_t>(length));
  BIO_free(bio);
  return text;
}

KeyPair generateKeyPair(const char* curve) {
  EVP_PKEY* key = EVP_EC_gen(curve);
  EXPECT_NE(key, nullptr);
  KeyPair pair;
  BIO* bio = BIO_new(BIO_s_mem());
  PEM_write_bio_PrivateKey(bio, key, nullptr, nullptr, 0, nullptr, nullptr);
  pair.private_pem = drain(bio);
  bio = BIO_new(BIO_s_mem());
  PEM_write_bio_PUBKEY(bio, key);
  pair.public_pem = drain(bio);
  bio = BIO_new(BIO_s_mem());
  PEM_write_bio_PrivateKey_traditional(bio, key, nullptr, nullptr, 0, nullptr, nullptr);
  pair.traditional_pem = drain(bio);
  EVP_PKEY_free(key);
  return pair;
}

class FileKeys : public ::testing::Test {
 protected:
  void TearDown() override {
    setFileSigningKey("");
    setFileVerificationKey("");
  }

  // Writes one block of three tags, signed with the key in force.
  void write(const std::string& name) {
    writeRecording(directory.file(name), {{tags, 0, 100}}, {{1, -1}});
  }
  std::vector<Block> readVerified(const std::string& name) {
    return readRecording(directory.file(name), true);
  }

  ScratchDirectory directory;
  std::vector<Tag> tags = {Tag{Tag::Type::TimeTag, 0, 0, 1, 10},
                           Tag{Tag::Type::TimeTag, 0, 0, 1, 20},
                           Tag{Tag::Type::TimeTag, 0, 0, 1, 30}};
};

TEST_F(FileKeys, OwnKeyPairSignsAndOnlyItsPublicKeyVerifies) {
  const KeyPair mine = generateKeyPair("P-256");
  setFileSigningKey(mine.private_pem);
  write("mine.ztbin");
  {
    LogCapture log;
    EXPECT_TRUE(readVerified("mine.ztbin").empty());
    EXPECT_EQ(countMessages(log, "ECC signature is wrong"), 1u);
    EXPECT_EQ(log.messages().size(), 2u);
  }
  setFileVerificationKey(mine.public_pem);
  {
    LogCapture log;
    ASSERT_EQ(readVerified("mine.ztbin").size(), 1u);
    EXPECT_TRUE(log.messages().empty());
  }
  // Back to the built-in pair on both sides.
  setFileSigningKey("");
  setFileVerificationKey("");
  write("builtin.ztbin");
  LogCapture log;
  EXPECT_EQ(readVerified("builtin.ztbin").size(), 1u);
  EXPECT_TRUE(readVerified("mine.ztbin").empty());
}

TEST_F(FileKeys, RejectsWhatIsNotAP256KeyAndKeepsTheKeyInForce) {
  const KeyPair mine = generateKeyPair("P-256");
  const KeyPair other_curve = generateKeyPair("P-384");
  setFileSigningKey(mine.traditional_pem);  // the "EC PRIVATE KEY" form serves as well
  setFileVerificationKey(mine.public_pem);
  EXPECT_THROW(setFileSigningKey("not a key"), std::invalid_argument);
  EXPECT_THROW(setFileSigningKey(other_curve.private_pem), std::invalid_argument);
  EXPECT_THROW(setFileSigningKey(mine.public_pem), std::invalid_argument);
  EXPECT_THROW(setFileVerificationKey(other_curve.public_pem), std::invalid_argument);
  EXPECT_THROW(
      setFileVerificationKey("-----BEGIN PUBLIC KEY-----\nAAAA\n-----END PUBLIC KEY-----\n"),
      std::invalid_argument);
  write("still-mine.ztbin");
  LogCapture log;
  EXPECT_EQ(readVerified("still-mine.ztbin").size(), 1u);
  EXPECT_TRUE(log.messages().empty());
}

}  // namespace
}  // namespace zeptick::testing
