#pragma once

// Digest and signature of time tag block data, shared by the writer and the reader.

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

namespace zeptick::detail {

/// SHA-1 into the 32-byte hash field: the digest in the first 20 bytes, zeros after.
/// Thread-safe: each thread digests with its own context, so blocks hash in parallel.
/// False if the digest could not be made (the field is then all zero).
bool sha1Digest(const void* data, size_t size, uint8_t (&hash)[32]);

/// A P-256 private key. Signing is const and safe from any number of threads at once.
class SigningKey {
 public:
  /// Throws std::invalid_argument unless `pem` holds an unencrypted P-256 private key.
  explicit SigningKey(const std::string& pem);
  ~SigningKey();
  SigningKey(const SigningKey&) = delete;
  SigningKey& operator=(const SigningKey&) = delete;

  /// ECDSA of the 32-byte field taken as the digest; raw r then s, 32 bytes each.
  bool sign(const uint8_t (&hash)[32], uint8_t (&signature)[64]) const;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl;
};

/// A P-256 public key. Verification is const and safe from any number of threads at once.
class VerifyingKey {
 public:
  /// Throws std::invalid_argument unless `pem` holds a P-256 public key.
  explicit VerifyingKey(const std::string& pem);
  ~VerifyingKey();
  VerifyingKey(const VerifyingKey&) = delete;
  VerifyingKey& operator=(const VerifyingKey&) = delete;

  bool verify(const uint8_t (&hash)[32], const uint8_t (&signature)[64]) const;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl;
};

/// The key new writers sign with: the user's (setFileSigningKey) or the built-in one.
std::shared_ptr<const SigningKey> currentSigningKey();
/// The key new readers verify with: the user's (setFileVerificationKey) or the built-in one.
std::shared_ptr<const VerifyingKey> currentVerifyingKey();

/// The built-in pair, in PEM form.
extern const char* const kBuiltinPrivateKeyPem;
extern const char* const kBuiltinPublicKeyPem;

}  // namespace zeptick::detail
