#include <HttpTools/jwt/Jwt.h>
#include <HttpTools/jwt/Jwt_p.h>

#include <HttpTools/platform/qzJson.h>
#include <HttpTools/platform/qzLog.h>
#include <HttpTools/platform/qzSystemUtils.h>

#include <openssl/crypto.h>

#include <algorithm>
#include <cctype>

namespace qz::jwt {

using namespace qz::qzOpenSSL;

namespace {
struct AlgName {
  const char* name;
  Alg alg;
};
constexpr AlgName kAlgNames[] = {{"HS256", HS256}, {"HS384", HS384}, {"HS512", HS512},
                                 {"RS256", RS256}, {"RS384", RS384}, {"RS512", RS512},
                                 {"ES256", ES256}, {"ES384", ES384}, {"ES512", ES512}};

constexpr int64_t kMaxLifetime = 86400; // "exp" at most 24 h after "iat"

// Random bytes, wiped when done: they may become a secret.
struct RandomBytes {
  std::vector<char> bytes;
  bool ok;
  explicit RandomBytes(size_t n) : bytes(n), ok(qzSystemUtils::Rand(bytes.data(), n)) {}
  ~RandomBytes() { OPENSSL_cleanse(bytes.data(), bytes.size()); }
};
} // namespace

Alg StringToAlg(const std::string& s) {
  std::string u = s;
  for (char& c : u)
    c = char(std::toupper(static_cast<unsigned char>(c)));
  for (const auto& a : kAlgNames)
    if (u == a.name)
      return a.alg;
  return ALG_None;
}

std::string AlgToString(Alg a) {
  for (const auto& n : kAlgNames)
    if (a == n.alg)
      return n.name;
  return {};
}

EllipticCurve StringToCurve(const std::string& s) {
  if (s == "P-256")
    return qzOpenSSL::EC_P256;
  if (s == "P-384")
    return qzOpenSSL::EC_P384;
  if (s == "P-512")
    return qzOpenSSL::EC_P521;
  return qzOpenSSL::EC_None;
}

int64_t NowSec() { return qzSystemUtils::GetSecElapsedSinceEpoch(); }

std::string CreateRandB64String(size_t n) {
  RandomBytes r(std::max<size_t>(n, 1));
  std::string out;
  if (!r.ok || !base64Encode(r.bytes.data(), r.bytes.size(), out, B64_UrlSafeNoPad))
    return {};
  return out;
}

std::string CreateSalt(size_t n) {
  RandomBytes r(n);
  std::string out;
  if (!r.ok || !base64Encode(r.bytes.data(), r.bytes.size(), out, B64_Standard))
    return {};
  return out;
}

std::string CreateRandHexString(size_t n) {
  static const char kHex[] = "0123456789abcdef";
  RandomBytes r(std::max<size_t>(n, 1));
  if (!r.ok)
    return {};
  std::string out;
  out.reserve(r.bytes.size() * 2);
  for (char c : r.bytes) {
    auto b = static_cast<unsigned char>(c);
    out += kHex[b >> 4];
    out += kHex[b & 15];
  }
  return out;
}

HashType AlgToHashType(Alg a) {
  switch (a) {
  case HS256:
  case RS256:
  case ES256:
    return HT_SHA256;
  case HS384:
  case RS384:
  case ES384:
    return HT_SHA384;
  case HS512:
  case RS512:
  case ES512:
    return HT_SHA512;
  default:
    return HT_None;
  }
}

namespace {
std::string AlgName(Alg alg) { return AlgToString(alg).empty() ? "alg " + std::to_string(int(alg)) : AlgToString(alg); }

bool Fail(std::string* error, const std::string& why) {
  if (error)
    *error = why;
  return false;
}
} // namespace

bool BuildJwtSigningInput(qzVariantMapImpl& claims, Alg alg, const std::string& kid, int headerClaims,
                          std::string& input, std::string* error) {
  qzVariantMapImpl header;
  header["typ"] = "JWT";
  header["alg"] = AlgToString(alg);
  if (!kid.empty())
    header["kid"] = kid;
  static const char* const kCopied[] = {"iss", "sub", "aud"};
  for (int i = 0; i < 3; ++i) {
    if (!(headerClaims & (1 << i)))
      continue;
    auto it = claims.find(kCopied[i]);
    if (it != claims.end())
      header[kCopied[i]] = it->second;
  }
  std::string json, headerSegment;
  if (!json::Json2Variant::Convert(header, json, false) ||
      !base64Encode(json.data(), json.size(), headerSegment, B64_UrlSafeNoPad))
    return Fail(error, "the header cannot be encoded");

  auto expIt = claims.find("exp");
  if (expIt == claims.end())
    return Fail(error, "the claims have no \"exp\"");
  int64_t iat;
  auto iatIt = claims.find("iat");
  if (iatIt == claims.end()) {
    iat = NowSec();
    claims["iat"] = iat;
  } else {
    iat = iatIt->second.toInt64();
  }
  const int64_t exp = expIt->second.toInt64();
  // iat <= exp <= iat + 24 h, written so that no extreme value overflows.
  if (exp < iat || uint64_t(exp) - uint64_t(iat) > uint64_t(kMaxLifetime)) {
    qzLogObject(qzLog::Warning, "jwt") << "Exp should be in range now + ]0;24h]";
    return Fail(error, "\"exp\" must lie between \"iat\" and 24 h after it");
  }
  if (claims.find("nbf") == claims.end())
    claims["nbf"] = iat;

  std::string claimsSegment;
  if (!json::Json2Variant::Convert(claims, json, false) ||
      !base64Encode(json.data(), json.size(), claimsSegment, B64_UrlSafeNoPad))
    return Fail(error, "the claims cannot be written as JSON");
  input.reserve(headerSegment.size() + 1 + claimsSegment.size());
  input = headerSegment;
  input += '.';
  input += claimsSegment;
  return true;
}

bool CreateHashedJwt(qzVariantMapImpl& claims, const std::string& secret, Alg alg, std::string& token,
                     int headerClaims) {
  return CreateHashedJwt(claims, secret, alg, token, headerClaims, nullptr);
}

bool CreateHashedJwt(qzVariantMapImpl& claims, const std::string& secret, Alg alg, std::string& token, int headerClaims,
                     std::string* error) {
  const HashType hash = AlgToHashType(alg);
  if ((alg & ~AlgHmacMask) || hash == HT_None)
    return Fail(error, AlgName(alg) + " is not an HMAC algorithm (HS256, HS384, HS512)");
  if (secret.empty())
    return Fail(error, "the secret is empty");
  std::string input;
  if (!BuildJwtSigningInput(claims, alg, {}, headerClaims, input, error))
    return false;
  std::vector<char> mac;
  std::string macSegment;
  if (!ComputeHmac(hash, secret.data(), secret.size(), input.data(), input.size(), mac) ||
      !base64Encode(mac.data(), mac.size(), macSegment, B64_UrlSafeNoPad))
    return Fail(error, "the HMAC cannot be computed");
  input += '.';
  input += macSegment;
  token = std::move(input);
  return true;
}

namespace {
// RS* needs an RSA key, ES* an EC key on the curve of its hash size: a token whose header
// names another algorithm than its signature is never written.
bool keyFitsAlg(const AsymmetricKey& key, Alg alg) {
  if (alg & (RS256 | RS384 | RS512))
    return key.getKeyType() == AsymmetricKey::KT_RSA;
  if (key.getKeyType() != AsymmetricKey::KT_EC)
    return false;
  const auto curve = key.getCurve();
  return (alg == ES256 && curve == EC_P256) || (alg == ES384 && curve == EC_P384) || (alg == ES512 && curve == EC_P521);
}
} // namespace

bool CreateSignedJwt(qzVariantMapImpl& claims, AsymmetricKey& key, Alg alg, std::string& token, int headerClaims) {
  return CreateSignedJwt(claims, key, alg, token, headerClaims, nullptr);
}

bool CreateSignedJwt(qzVariantMapImpl& claims, AsymmetricKey& key, Alg alg, std::string& token, int headerClaims,
                     std::string* error) {
  const HashType hash = AlgToHashType(alg);
  if ((alg & ~AlgAsymmetricMask) || hash == HT_None)
    return Fail(error, AlgName(alg) + " is not a signature algorithm (RS256/384/512, ES256/384/512)");
  if (!key.canSign())
    return Fail(error, "the key cannot sign (a public key?)");
  if (!keyFitsAlg(key, alg))
    return Fail(error, AlgToString(alg) + (alg & (RS256 | RS384 | RS512)
                                               ? " needs an RSA key"
                                               : " needs an EC key on " + std::string(alg == ES256   ? "P-256"
                                                                                      : alg == ES384 ? "P-384"
                                                                                                     : "P-521")));
  std::string input;
  if (!BuildJwtSigningInput(claims, alg, key.getKeyId(), headerClaims, input, error))
    return false;
  std::vector<char> signature;
  std::string signatureSegment;
  if (!SignDigestAsymmetric(signature, input.data(), input.size(), key, hash, nullptr) ||
      !base64Encode(signature.data(), signature.size(), signatureSegment, B64_UrlSafeNoPad))
    return Fail(error, "signing failed");
  input += '.';
  input += signatureSegment;
  token = std::move(input);
  return true;
}

} // namespace qz::jwt
