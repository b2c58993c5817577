#include "files/block_signing.h"

#include <openssl/bio.h>
#include <openssl/bn.h>
#include <openssl/ec.h>
#include <openssl/evp.h>
#include <openssl/pem.h>

#include <cstring>
#include <mutex>
#include <stdexcept>

#include "zeptick/file_signing.h"

namespace zeptick::detail {
namespace {

struct PkeyDeleter {
  void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
};
struct PkeyCtxDeleter {
  void operator()(EVP_PKEY_CTX* context) const { EVP_PKEY_CTX_free(context); }
};
struct MdCtxDeleter {
  void operator()(EVP_MD_CTX* context) const { EVP_MD_CTX_free(context); }
};
struct BioDeleter {
  void operator()(BIO* bio) const { BIO_free(bio); }
};
struct SigDeleter {
  void operator()(ECDSA_SIG* signature) const { ECDSA_SIG_free(signature); }
};
using PkeyPtr = std::unique_ptr<EVP_PKEY, PkeyDeleter>;
using PkeyCtxPtr = std::unique_ptr<EVP_PKEY_CTX, PkeyCtxDeleter>;

// Fetched once: looking the algorithm up by name on every block would cost a lock each time.
const EVP_MD* sha1Algorithm() {
  static EVP_MD* const algorithm = EVP_MD_fetch(nullptr, "SHA1", nullptr);
  return algorithm;
}

bool isP256(EVP_PKEY* key) {
  if (key == nullptr || !EVP_PKEY_is_a(key, "EC")) return false;
  char group[64] = {};
  size_t length = 0;
  return EVP_PKEY_get_group_name(key, group, sizeof(group), &length) == 1 &&
         std::strcmp(group, "prime256v1") == 0;
}

template <class Read>
PkeyPtr readPem(const std::string& pem, Read read, const char* what) {
  std::unique_ptr<BIO, BioDeleter> bio(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())));
  PkeyPtr key(bio ? read(bio.get(), nullptr, nullptr, nullptr) : nullptr);
  if (!isP256(key.get())) throw std::invalid_argument(what);
  return key;
}

}  // namespace

bool sha1Digest(const void* data, size_t size, uint8_t (&hash)[32]) {
  std::memset(hash, 0, sizeof(hash));
  // One context per thread: digests of different blocks never wait for each other.
  thread_local std::unique_ptr<EVP_MD_CTX, MdCtxDeleter> context(EVP_MD_CTX_new());
  const EVP_MD* algorithm = sha1Algorithm();
  unsigned int length = 0;
  const bool done = context && algorithm &&
                    EVP_DigestInit_ex2(context.get(), algorithm, nullptr) == 1 &&
                    EVP_DigestUpdate(context.get(), data, size) == 1 &&
                    EVP_DigestFinal_ex(context.get(), hash, &length) == 1 && length == 20;
  if (!done) std::memset(hash, 0, sizeof(hash));
  return done;
}

struct SigningKey::Impl {
  PkeyPtr key;
};

SigningKey::SigningKey(const std::string& pem)
    : impl(new Impl{readPem(pem, PEM_read_bio_PrivateKey,
                            "private_key_pem is not an unencrypted P-256 private key in PEM "
                            "form")}) {}

SigningKey::~SigningKey() = default;

bool SigningKey::sign(const uint8_t (&hash)[32], uint8_t (&signature)[64]) const {
  PkeyCtxPtr context(EVP_PKEY_CTX_new_from_pkey(nullptr, impl->key.get(), nullptr));
  unsigned char der[80];  // a DER P-256 signature takes at most 72 bytes
  size_t der_length = sizeof(der);
  if (!context || EVP_PKEY_sign_init(context.get()) != 1 ||
      EVP_PKEY_sign(context.get(), der, &der_length, hash, sizeof(hash)) != 1) {
    return false;
  }
  const unsigned char* cursor = der;
  std::unique_ptr<ECDSA_SIG, SigDeleter> parsed(
      d2i_ECDSA_SIG(nullptr, &cursor, static_cast<long>(der_length)));
  if (!parsed) return false;
  // Raw r and s, 32 bytes each, big-endian: a fixed width that fits the 64-byte field.
  return BN_bn2binpad(ECDSA_SIG_get0_r(parsed.get()), signature, 32) == 32 &&
         BN_bn2binpad(ECDSA_SIG_get0_s(parsed.get()), signature + 32, 32) == 32;
}

struct VerifyingKey::Impl {
  PkeyPtr key;
};

VerifyingKey::VerifyingKey(const std::string& pem)
    : impl(new Impl{readPem(pem, PEM_read_bio_PUBKEY,
                            "public_key_pem is not a P-256 public key in PEM form")}) {}

VerifyingKey::~VerifyingKey() = default;

bool VerifyingKey::verify(const uint8_t (&hash)[32], const uint8_t (&signature)[64]) const {
  std::unique_ptr<ECDSA_SIG, SigDeleter> parsed(ECDSA_SIG_new());
  BIGNUM* r = BN_bin2bn(signature, 32, nullptr);
  BIGNUM* s = BN_bin2bn(signature + 32, 32, nullptr);
  if (!parsed || r == nullptr || s == nullptr || ECDSA_SIG_set0(parsed.get(), r, s) != 1) {
    BN_free(r);
    BN_free(s);
    return false;
  }
  unsigned char der[80];
  unsigned char* cursor = der;
  const int der_length = i2d_ECDSA_SIG(parsed.get(), nullptr);
  if (der_length <= 0 || der_length > static_cast<int>(sizeof(der)) ||
      i2d_ECDSA_SIG(parsed.get(), &cursor) != der_length) {
    return false;
  }
  PkeyCtxPtr context(EVP_PKEY_CTX_new_from_pkey(nullptr, impl->key.get(), nullptr));
  return context && EVP_PKEY_verify_init(context.get()) == 1 &&
         EVP_PKEY_verify(context.get(), der, static_cast<size_t>(der_length), hash, sizeof(hash)) ==
             1;
}

namespace {

struct KeyStore {
  std::mutex mutex;
  std::shared_ptr<const SigningKey> signing;
  std::shared_ptr<const VerifyingKey> verifying;
};

KeyStore& keyStore() {
  static KeyStore store;
  return store;
}

}  // namespace

std::shared_ptr<const SigningKey> currentSigningKey() {
  KeyStore& store = keyStore();
  std::lock_guard<std::mutex> guard(store.mutex);
  if (!store.signing) store.signing = std::make_shared<const SigningKey>(kBuiltinPrivateKeyPem);
  return store.signing;
}

std::shared_ptr<const VerifyingKey> currentVerifyingKey() {
  KeyStore& store = keyStore();
  std::lock_guard<std::mutex> guard(store.mutex);
  if (!store.verifying) {
    store.verifying = std::make_shared<const VerifyingKey>(kBuiltinPublicKeyPem);
  }
  return store.verifying;
}

}  // namespace zeptick::detail

namespace zeptick {

void setFileSigningKey(const std::string& private_key_pem) {
  // Parse outside the lock; an invalid key leaves the one in force untouched.
  std::shared_ptr<const detail::SigningKey> key;
  if (!private_key_pem.empty()) key = std::make_shared<const detail::SigningKey>(private_key_pem);
  detail::KeyStore& store = detail::keyStore();
  std::lock_guard<std::mutex> guard(store.mutex);
  store.signing = std::move(key);
}

void setFileVerificationKey(const std::string& public_key_pem) {
  std::shared_ptr<const detail::VerifyingKey> key;
  if (!public_key_pem.empty()) key = std::make_shared<const detail::VerifyingKey>(public_key_pem);
  detail::KeyStore& store = detail::keyStore();
  std::lock_guard<std::mutex> guard(store.mutex);
  store.verifying = std::move(key);
}

}  // namespace zeptick
