// Signatures checked ahead of the reader: a kept pair may only ever stand for a check that the
// same key passed on the same block.

#include "files/checked_signatures.h"

#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <openssl/pem.h>

#include <string>

namespace zeptick::testing {
namespace {

using detail::CheckedSignatures;
using detail::VerifyingKey;

struct Signed {
  uint8_t hash[32];
  uint8_t signature[64];
};

Signed signBlock(char fill) {
  static const detail::SigningKey key(detail::kBuiltinPrivateKeyPem);
  const std::string data(1000, fill);
  Signed block{};
  EXPECT_TRUE(detail::sha1Digest(data.data(), data.size(), block.hash));
  EXPECT_TRUE(key.sign(block.hash, block.signature));
  return block;
}

std::shared_ptr<const VerifyingKey> otherKey() {
  EVP_PKEY* pair = EVP_EC_gen("P-256");
  BIO* bio = BIO_new(BIO_s_mem());
  PEM_write_bio_PUBKEY(bio, pair);
  char* data = nullptr;
  const long length = BIO_get_mem_data(bio, &data);
  const std::string pem(data, static_cast<size_t>(length));
  BIO_free(bio);
  EVP_PKEY_free(pair);
  return std::make_shared<const VerifyingKey>(pem);
}

TEST(CheckedSignatures, KeepsOnlyAcceptedPairsForTheirKeyBlockAndFile) {
  const auto key = std::make_shared<const VerifyingKey>(detail::kBuiltinPublicKeyPem);
  const Signed first = signBlock('a');
  const Signed second = signBlock('b');
  Signed forged = signBlock('c');
  forged.signature[7] ^= 0x01;

  CheckedSignatures checked(2);
  const uint64_t file = checked.currentFile();
  checked.checkAhead(file, key, 16, forged.hash, forged.signature);
  checked.checkAhead(file, key, 32, first.hash, first.signature);
  checked.checkAhead(file, key, 48, second.hash, second.signature);
  EXPECT_FALSE(checked.hasRoom()) << "the two good pairs are kept, the forged one is not";
  EXPECT_FALSE(checked.verify(key, 16, forged.hash, forged.signature));
  // Another key rejects the pair that ours accepted, kept or not.
  EXPECT_FALSE(checked.verify(otherKey(), 32, first.hash, first.signature));
  // The reader has passed both blocks once it asks for the later one: room again.
  EXPECT_TRUE(checked.verify(key, 48, second.hash, second.signature));
  EXPECT_TRUE(checked.hasRoom());
  checked.checkAhead(file, key, 64, first.hash, first.signature);
  checked.checkAhead(file, key, 80, second.hash, second.signature);
  EXPECT_FALSE(checked.hasRoom());

  // A check that was under way when the reader moved on to another file is not kept.
  checked.clear();
  checked.checkAhead(file, key, 16, first.hash, first.signature);
  checked.checkAhead(file, key, 32, second.hash, second.signature);
  EXPECT_TRUE(checked.hasRoom());
  EXPECT_TRUE(checked.verify(key, 16, first.hash, first.signature));
}

}  // namespace
}  // namespace zeptick::testing
