#include <HttpTools/jwt/Verifier.h>

#include <HttpTools/jwt/Jwt_p.h>
#include <HttpTools/platform/qzJson.h>
#include <HttpTools/platform/qzLog.h>
#include <HttpTools/platform/qzOpenSSL.h>

#include <openssl/crypto.h>

#include <cctype>
#include <cstring>
#include <limits>

namespace qz::jwt {

using namespace qz::qzOpenSSL;

namespace {

// base64url text to a JSON object; an empty segment is an empty object.
bool decodeSegment(const char* p, size_t n, qzVariantMapImpl& out) {
  std::vector<char> bytes;
  if (!base64Decode(p, n, bytes, B64_UrlSafeNoPad))
    return false;
  if (bytes.empty()) {
    out.clear();
    return true;
  }
  return json::Json2Variant::Convert(bytes.data(), bytes.size(), out);
}

int64_t satAdd(int64_t a, int64_t b) {
  int64_t r;
  if (__builtin_add_overflow(a, b, &r))
    return b > 0 ? std::numeric_limits<int64_t>::max() : std::numeric_limits<int64_t>::min();
  return r;
}

int64_t claimInt(const qzVariantMapImpl& claims, const char* name) {
  auto it = claims.find(name);
  return it == claims.end() ? 0 : it->second.toInt64();
}

} // namespace

Verifier::~Verifier() { clearClientInfo(); }

void Verifier::setClientInfo(const std::string& secret, KeyProvider* provider, int algMask) {
  clearClientInfo();
  m_secret = secret;
  m_provider = provider;
  m_algMask = algMask;
}

void Verifier::clearClientInfo() {
  qzOpenSSL::WipeString(m_secret);
  m_provider = nullptr;
  m_algMask = 0;
}

std::string Verifier::RejectCauseToString(RejectCause cause) {
  switch (cause) {
  case RC_Malformed:
    return "Malformed jwt";
  case RC_UnsupportedAlg:
    return "Unsupported jwt alg";
  case RC_Uninitialized:
    return "Uninitialized jwt decoder";
  case RC_SignatureMismatch:
    return "jwt signature missmatch";
  case RC_InternalError:
    return "jwt verifier internal error";
  case RC_Expired:
    return "jwt has expired";
  case RC_IssuedInFuture:
    return "jwt issue date is in the future";
  case RC_NotYetValid:
    return "jwt is issued for a future use";
  default:
    return "jwt unknown error";
  }
}

bool Verifier::IsTimeError(RejectCause cause) {
  return cause == RC_Expired || cause == RC_IssuedInFuture || cause == RC_NotYetValid;
}

bool Verifier::SplitJwt(const char* jwt, size_t len, qzVariantMapImpl& header, qzVariantMapImpl* claims,
                        const char*& signature, size_t& signatureLen) {
  if (!jwt)
    return false;
  // Dots are searched within `len` only; a claims segment is never empty.
  const char* dot1 = static_cast<const char*>(std::memchr(jwt, '.', len));
  if (!dot1)
    return false;
  const size_t from = size_t(dot1 - jwt) + 2;
  if (from >= len)
    return false;
  const char* dot2 = static_cast<const char*>(std::memchr(jwt + from, '.', len - from));
  if (!dot2)
    return false;
  qzVariantMapImpl h, c;
  if (!decodeSegment(jwt, size_t(dot1 - jwt), h))
    return false;
  if (claims && !decodeSegment(dot1 + 1, size_t(dot2 - dot1 - 1), c))
    return false;
  header = std::move(h);
  if (claims)
    *claims = std::move(c);
  signature = dot2 + 1;
  signatureLen = len - size_t(signature - jwt);
  return true;
}

bool Verifier::ExtractJwtContentNoValidation(const char* jwt, size_t len, qzVariantMapImpl& header,
                                             qzVariantMapImpl* claims) {
  const char* signature = nullptr;
  size_t signatureLen = 0;
  return SplitJwt(jwt, len, header, claims, signature, signatureLen);
}

bool Verifier::validateJwtWithTimeBase(const char* jwt, size_t len, qzVariantMapImpl& claims, int64_t timeBase,
                                       RejectCause* cause) const {
  RejectCause local = RC_None;
  RejectCause& verdict = cause ? *cause : local;
  verdict = RC_None;
  auto reject = [&verdict](RejectCause c) {
    verdict = c;
    return false;
  };

  qzVariantMapImpl header;
  const char* signature = nullptr;
  size_t signatureLen = 0;
  if (!SplitJwt(jwt, len, header, &claims, signature, signatureLen))
    return reject(RC_Malformed);

  auto typ = header.find("typ");
  if (typ != header.end()) {
    std::string t = typ->second.toString();
    for (char& ch : t)
      ch = char(std::toupper(static_cast<unsigned char>(ch)));
    if (!t.empty() && t != "JWT")
      return reject(RC_Malformed);
  }

  // No extension is understood, so none that the issuer marks critical can be honoured.
  if (header.count("crit"))
    return reject(RC_UnsupportedAlg);

  auto algIt = header.find("alg");
  const Alg alg = algIt == header.end() ? ALG_None : StringToAlg(algIt->second.toString());
  if (!(alg & m_algMask))
    return reject(RC_UnsupportedAlg);
  const HashType hash = AlgToHashType(alg);
  if (hash == HT_None)
    return reject(RC_UnsupportedAlg);

  const char* input = jwt;
  const size_t inputLen = size_t(signature - jwt) - 1;
  if (alg & AlgHmacMask) {
    if (m_secret.empty())
      return reject(RC_Uninitialized);
    std::vector<char> mac;
    std::string expected;
    const bool computed = ComputeHmac(hash, m_secret.data(), m_secret.size(), input, inputLen, mac) &&
                          base64Encode(mac.data(), mac.size(), expected, B64_UrlSafeNoPad);
    OPENSSL_cleanse(mac.data(), mac.size());
    if (!computed)
      return reject(RC_InternalError);
    // Constant time once the lengths agree; an empty signature never matches.
    const bool match = signatureLen != 0 && expected.size() == signatureLen &&
                       CRYPTO_memcmp(expected.data(), signature, signatureLen) == 0;
    OPENSSL_cleanse(expected.data(), expected.size());
    if (!match)
      return reject(RC_SignatureMismatch);
  } else if (!(alg & AlgAsymmetricMask)) {
    return reject(RC_UnsupportedAlg);
  } else {
    auto kidIt = header.find("kid");
    const std::string kid = kidIt == header.end() ? std::string() : kidIt->second.toString();
    if (!m_provider)
      return reject(RC_Uninitialized);
    std::string error;
    std::shared_ptr<AsymmetricKey> key = m_provider->getKeyFromId(kid, alg, &error);
    if (!key) {
      qzLogObject(qzLog::Notice, "jwt") << error;
      return reject(RC_InternalError);
    }
    // An ECDSA key signs with the hash of its own curve only.
    if (key->getKeyType() == AsymmetricKey::KT_EC) {
      const EllipticCurve curve = key->getCurve();
      const Alg own = curve == EC_P256 ? ES256 : curve == EC_P384 ? ES384 : curve == EC_P521 ? ES512 : ALG_None;
      if (alg != own)
        return reject(RC_SignatureMismatch);
    }
    std::vector<char> sigBytes;
    if (!base64Decode(signature, signatureLen, sigBytes, B64_UrlSafeNoPad))
      return reject(RC_InternalError);
    SignatureError sigError = SE_None;
    if (!VerifyDigestAsymmetric(input, inputLen, sigBytes.data(), sigBytes.size(), *key, hash, &sigError))
      return reject(sigError != SE_None ? RC_InternalError : RC_SignatureMismatch);
  }

  // Times, with the leeway on each side; "exp" and "iat" are required.
  const int64_t exp = claimInt(claims, "exp");
  if (exp <= 0 || exp < satAdd(timeBase, -Leeway))
    return reject(RC_Expired);
  const int64_t iat = claimInt(claims, "iat");
  if (iat <= 0 || iat > satAdd(timeBase, Leeway))
    return reject(RC_IssuedInFuture);
  auto nbf = claims.find("nbf");
  if (nbf != claims.end()) {
    if (!nbf->second.isInt64())
      return reject(RC_Malformed);
    if (nbf->second.toInt64() > satAdd(timeBase, Leeway))
      return reject(RC_NotYetValid);
  }
  return true;
}

bool Verifier::validateJwtWithTimeBase(const std::string& jwt, qzVariantMapImpl& claims, int64_t timeBase,
                                       RejectCause* cause) const {
  return validateJwtWithTimeBase(jwt.data(), jwt.size(), claims, timeBase, cause);
}

bool Verifier::validateJwt(const char* jwt, size_t len, qzVariantMapImpl& claims, RejectCause* cause) const {
  return validateJwtWithTimeBase(jwt, len, claims, NowSec(), cause);
}

bool Verifier::validateJwt(const std::string& jwt, qzVariantMapImpl& claims, RejectCause* cause) const {
  return validateJwtWithTimeBase(jwt.data(), jwt.size(), claims, NowSec(), cause);
}

} // namespace qz::jwt
