#pragma once

// Internal view of the keys: the OpenSSL object behind an AsymmetricKey.

#include <HttpTools/platform/qzOpenSSLCrypto.h>

#include <openssl/evp.h>

#include <memory>

namespace qz::qzOpenSSL {

struct PkeyDeleter {
  void operator()(EVP_PKEY* p) const { EVP_PKEY_free(p); }
};
using PkeyPtr = std::unique_ptr<EVP_PKEY, PkeyDeleter>;

struct AsymmetricKey::Impl {
  PkeyPtr pkey;
  EllipticCurve curve = EC_None; // EC keys only
};

// The EVP_PKEY of a valid key, null otherwise. The key keeps ownership.
inline EVP_PKEY* GetPkey(const AsymmetricKey& key) { return key.impl() ? key.impl()->pkey.get() : nullptr; }

// OpenSSL's digest for a hash type, null for HT_None or an unknown value.
const EVP_MD* DigestFor(HashType type);

} // namespace qz::qzOpenSSL
