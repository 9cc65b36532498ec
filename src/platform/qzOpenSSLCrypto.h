#pragma once

/// @file
/// Hashing, MACs, base64 and asymmetric keys with their signatures, over OpenSSL 3 EVP.
/// No OpenSSL type shows here: keys keep their EVP_PKEY in a private implementation.

#include <HttpTools/platform/Export.h>

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

namespace qz::qzOpenSSL {

/// Digest algorithms; the values are fixed (they are stored and compared as ints).
enum HashType : int { HT_None = 0, HT_SHA1 = 2, HT_SHA256 = 3, HT_SHA384 = 4, HT_SHA512 = 5 };

/// 1: standard alphabet with "=" padding; 2: URL-safe alphabet with padding;
/// 3: URL-safe alphabet without padding (JWS segments).
enum Base64CharSet : int { B64_Standard = 1, B64_UrlSafe = 2, B64_UrlSafeNoPad = 3 };

/// NIST curves; EC_P521 is the curve that JWK calls "P-521".
enum EllipticCurve : int { EC_None = 0, EC_P256 = 3, EC_P384 = 4, EC_P521 = 5 };

/// Why a signature operation could not run. SE_None after a failed verification means that
/// the check ran and the signature does not match.
enum SignatureError : int {
  SE_None = 0,
  SE_InvalidKey = 1,   ///< key missing, not built, or of no known type
  SE_NoPrivateKey = 2, ///< signing with a public key
  SE_UnsupportedHash = 3,
  SE_CryptoFailure = 4, ///< OpenSSL failed for another reason
};

/// Size in bytes of a digest of this type, 0 for HT_None or an unknown value.
HTTPTOOLS_API size_t HashSize(HashType type);

/// Digest of `data` into `digest` (resized to HashSize). False for an unknown type or an OpenSSL failure.
HTTPTOOLS_API bool ComputeHash(HashType type, const char* data, size_t len, std::vector<char>& digest);
/// HMAC of `data` under `key` into `mac`. False for an unknown type or an OpenSSL failure. Thread-safe.
HTTPTOOLS_API bool ComputeHmac(HashType type, const char* key, size_t keyLen, const char* data, size_t dataLen,
                               std::vector<char>& mac);

/// Appends nothing on failure; `out` is replaced on success.
/// Encodes `data` in `set`.
///@{
HTTPTOOLS_API bool base64Encode(const char* data, size_t len, std::string& out, Base64CharSet set);
HTTPTOOLS_API bool base64Encode(const std::string& data, std::string& out, Base64CharSet set);
///@}
/// Strict: characters outside the set, misplaced or (set 3) any padding, an impossible length or
/// non-zero unused bits all fail, leaving `out` untouched.
///@{
HTTPTOOLS_API bool base64Decode(const char* data, size_t len, std::vector<char>& out, Base64CharSet set);
HTTPTOOLS_API bool base64Decode(const std::string& data, std::vector<char>& out, Base64CharSet set);
///@}

/// A public key, or a key pair, for RSA or ECDSA signatures. Shared through std::shared_ptr.
/// A key whose construction failed keeps the reason in getError() and cannot sign or verify.
class HTTPTOOLS_API AsymmetricKey {
public:
  /// What the key can do, as a bit mask: every valid key verifies, a private key also signs.
  enum UsageFlag { KU_Verify = 1, KU_Sign = 2 };
  /// The key's algorithm family.
  enum KeyType { KT_None = 0, KT_RSA = 1, KT_EC = 2 };

  virtual ~AsymmetricKey();
  AsymmetricKey(const AsymmetricKey&) = delete;
  AsymmetricKey& operator=(const AsymmetricKey&) = delete;

  /// The JWK "kid" the key is known by; empty unless set.
  ///@{
  const std::string& getKeyId() const { return m_keyId; }
  void setKeyId(const std::string& kid) { m_keyId = kid; }
  ///@}
  /// UsageFlag bits; canSign() is true for a private key.
  ///@{
  int getUsageFlags() const { return m_usage; }
  bool canSign() const { return (m_usage & KU_Sign) != 0; }
  ///@}
  /// Whether the key was built, and if not why; an invalid key's type is KT_None.
  ///@{
  bool isValid() const { return m_error.empty() && m_impl != nullptr; }
  const std::string& getError() const { return m_error; }
  ///@}
  KeyType getKeyType() const { return m_type; } ///< KT_RSA or KT_EC; KT_None when invalid
  /// Curve of an EC key; EC_None for other keys.
  EllipticCurve getCurve() const;
  /// Modulus size for RSA, field size for EC, in bits; 0 for an invalid key.
  int getBits() const;

  /// PEM text of the public key (SubjectPublicKeyInfo), and of the private key (PKCS#8,
  /// unencrypted; empty for a public key).
  ///@{
  std::string toPublicPem() const;
  std::string toPrivatePem() const;
  ///@}

  /// Loads a PEM public key or unencrypted private key of either type; null with `*error` set
  /// when the text holds no usable key.
  static std::shared_ptr<AsymmetricKey> FromPem(const std::string& pem, std::string* error = nullptr);

  struct Impl;                                      ///< owns the EVP_PKEY
  const Impl* impl() const { return m_impl.get(); } ///< the library's own access to the EVP_PKEY

protected:
  AsymmetricKey();
  /// Subclasses hand over the built key (taking ownership), or record why none was built.
  void setImpl(std::unique_ptr<Impl> impl, KeyType type, int usage);
  void setError(const std::string& error); ///< makes the key invalid
  /// Loads `pem` as a key of `type` (or any type when KT_None).
  void loadPem(const std::string& pem, KeyType type);

private:
  std::unique_ptr<Impl> m_impl;
  std::string m_keyId;
  std::string m_error;
  KeyType m_type = KT_None;
  int m_usage = 0;
};

/// An RSA key; an invalid one says why in getError().
class HTTPTOOLS_API RSAKey : public AsymmetricKey {
public:
  /// Public key from the big-endian unsigned modulus and exponent (JWK "n" and "e").
  RSAKey(const std::vector<char>& n, const std::vector<char>& e);
  /// Public or private key from PEM text.
  explicit RSAKey(const std::string& pem);
  /// New key pair (tests, tools).
  static std::shared_ptr<RSAKey> Generate(int bits);

  static constexpr int MinBits = 1024; ///< smaller keys are refused

private:
  RSAKey() = default;
};

/// An ECDSA key on a NIST curve; an invalid one says why in getError().
class HTTPTOOLS_API EllipticCurveKey : public AsymmetricKey {
public:
  /// Public key from the big-endian affine coordinates (JWK "x" and "y"); each at most the
  /// curve's field size, shorter values are left-padded. The point must lie on the curve.
  EllipticCurveKey(EllipticCurve curve, const std::vector<char>& x, const std::vector<char>& y);
  /// Public or private key from PEM text.
  explicit EllipticCurveKey(const std::string& pem);
  /// New key pair (tests, tools); an invalid key for EC_None.
  static std::shared_ptr<EllipticCurveKey> Generate(EllipticCurve curve);

  /// Field size in bytes: 32, 48, 66; 0 for EC_None.
  static size_t FieldSize(EllipticCurve curve);

private:
  EllipticCurveKey() = default;
};

/// Hashes `data` and signs the digest with the private part of `key`. ECDSA signatures come out
/// as the fixed-width R||S pair (2 x field size bytes), RSA ones as PKCS #1 v1.5.
HTTPTOOLS_API bool SignDigestAsymmetric(std::vector<char>& signature, const char* data, size_t len,
                                        const AsymmetricKey& key, HashType hash, SignatureError* error);

/// Hashes `data` and checks `signature` with `key`. False with *error == SE_None: the signature
/// does not match (an ECDSA signature must be exactly R||S of 2 x field size bytes). False with a
/// non-zero *error: the check could not run.
HTTPTOOLS_API bool VerifyDigestAsymmetric(const char* data, size_t len, const char* signature, size_t sigLen,
                                          const AsymmetricKey& key, HashType hash, SignatureError* error);

} // namespace qz::qzOpenSSL
