#pragma once

/// @file
/// JSON Web Tokens: algorithms, random strings, scopes and the two token writers.

#include <HttpTools/platform/Export.h>
#include <HttpTools/platform/qzOpenSSLCrypto.h>
#include <HttpTools/platform/qzVariant.h>

#include <cstdint>
#include <string>
#include <vector>

namespace qz::jwt {

using qz::qzOpenSSL::AsymmetricKey;
using qz::qzOpenSSL::EllipticCurve;

/// One bit per JWS algorithm, so that sets of algorithms fit in a mask.
enum Alg : int32_t {
  ALG_None = 0,
  HS256 = 16,
  HS384 = 32,
  HS512 = 64,
  RS256 = 128,
  RS384 = 256,
  RS512 = 512,
  ES256 = 1024,
  ES384 = 2048,
  ES512 = 4096,
};
constexpr int AlgHmacMask = HS256 | HS384 | HS512;                               ///< 112
constexpr int AlgAsymmetricMask = RS256 | RS384 | RS512 | ES256 | ES384 | ES512; ///< 8064
constexpr int AlgAllMask = AlgHmacMask | AlgAsymmetricMask;                      ///< every algorithm

/// Claims that the writers copy into the header as well.
enum HeaderClaim { HC_Iss = 1, HC_Sub = 2, HC_Aud = 4 };

/// Case-insensitive ("hs256" is HS256); blanks are not trimmed; unknown names give ALG_None.
HTTPTOOLS_API Alg StringToAlg(const std::string& s);
/// Canonical name of a single algorithm; "" for 0, masks and unknown values.
HTTPTOOLS_API std::string AlgToString(Alg a);
/// "P-256", "P-384", "P-512" (exact case); anything else, "P-521" included, gives EC_None.
HTTPTOOLS_API EllipticCurve StringToCurve(const std::string& s);
/// Wall-clock seconds since the epoch: the time of every token.
HTTPTOOLS_API int64_t NowSec();

/// max(n,1) random bytes in URL-safe unpadded base64.
HTTPTOOLS_API std::string CreateRandB64String(size_t n);
/// Exactly n random bytes in standard padded base64 ("" for 0).
HTTPTOOLS_API std::string CreateSalt(size_t n);
/// max(n,1) random bytes as 2*max(n,1) lower-case hex digits.
HTTPTOOLS_API std::string CreateRandHexString(size_t n);
/// OAuth 2.0 scope ("read write a%20b") from tags: tags are trimmed, characters outside the
/// scope-token set percent-encoded, empty tags dropped, one blank between tags.
HTTPTOOLS_API std::string StringListToScope(const std::vector<std::string>& tags);

/// HMAC token (HS256/384/512). Adds "iat" (now) and "nbf" (= iat) to `claims` when missing;
/// "exp" is required and must lie within 24 h after "iat". `token` is written only on success.
HTTPTOOLS_API bool CreateHashedJwt(qzVariantMapImpl& claims, const std::string& secret, Alg alg, std::string& token,
                                   int headerClaims = 0);
/// Signed token (RS*, ES*) with a key that can sign; the key's id goes to the header as "kid".
HTTPTOOLS_API bool CreateSignedJwt(qzVariantMapImpl& claims, AsymmetricKey& key, Alg alg, std::string& token,
                                   int headerClaims = 0);

/// The same two writers, saying in `*error` (when not null) why no token was made: an algorithm
/// of the wrong family, a key that cannot sign or does not fit the algorithm, an empty secret, a
/// missing "exp" or one outside the 24 h window.
///@{
HTTPTOOLS_API bool CreateHashedJwt(qzVariantMapImpl& claims, const std::string& secret, Alg alg, std::string& token,
                                   int headerClaims, std::string* error);
HTTPTOOLS_API bool CreateSignedJwt(qzVariantMapImpl& claims, AsymmetricKey& key, Alg alg, std::string& token,
                                   int headerClaims, std::string* error);
///@}

} // namespace qz::jwt
