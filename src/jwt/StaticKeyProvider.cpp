#include <HttpTools/jwt/StaticKeyProvider.h>

#include <HttpTools/platform/qzJson.h>
#include <HttpTools/platform/qzOpenSSLCrypto.h>

namespace qz::jwt {

namespace {

using qz::qzOpenSSL::B64_UrlSafeNoPad;

bool DecodeMember(const qzVariantMapImpl& jwk, const char* name, std::vector<char>& out) {
  auto it = jwk.find(name);
  const std::string* text = it == jwk.end() ? nullptr : it->second.stringPtr();
  return text && !text->empty() && qz::qzOpenSSL::base64Decode(*text, out, B64_UrlSafeNoPad);
}

std::shared_ptr<AsymmetricKey> KeyFromJwk(const qzVariantMapImpl& jwk, std::string& error) {
  auto kty = jwk.find("kty");
  const std::string type = kty == jwk.end() ? "" : kty->second.toString();
  std::shared_ptr<AsymmetricKey> key;
  if (type == "RSA") {
    std::vector<char> n, e;
    if (!DecodeMember(jwk, "n", n) || !DecodeMember(jwk, "e", e)) {
      error = "RSA n or e parameters are invalid";
      return nullptr;
    }
    key = std::make_shared<qz::qzOpenSSL::RSAKey>(n, e);
  } else if (type == "EC") {
    std::vector<char> x, y;
    auto crv = jwk.find("crv");
    const EllipticCurve curve = crv == jwk.end() ? qz::qzOpenSSL::EC_None : StringToCurve(crv->second.toString());
    if (curve == qz::qzOpenSSL::EC_None) {
      error = "unrecognised ECDSA curve in \"crv\"";
      return nullptr;
    }
    if (!DecodeMember(jwk, "x", x) || !DecodeMember(jwk, "y", y)) {
      error = "ECDSA x or y parameters are invalid";
      return nullptr;
    }
    key = std::make_shared<qz::qzOpenSSL::EllipticCurveKey>(curve, x, y);
  } else {
    error = type == "oct" ? "a symmetric JWK is not a verification key" : "JWK \"kty\" is neither RSA nor EC";
    return nullptr;
  }
  if (!key->getError().empty()) {
    error = key->getError();
    return nullptr;
  }
  return key;
}

bool KeyFitsAlg(const AsymmetricKey& key, Alg alg) {
  if (alg & (RS256 | RS384 | RS512))
    return key.getKeyType() == AsymmetricKey::KT_RSA;
  if (key.getKeyType() != AsymmetricKey::KT_EC)
    return false;
  const EllipticCurve curve = key.getCurve();
  return (alg == ES256 && curve == qz::qzOpenSSL::EC_P256) || (alg == ES384 && curve == qz::qzOpenSSL::EC_P384) ||
         (alg == ES512 && curve == qz::qzOpenSSL::EC_P521);
}

} // namespace

StaticKeyProvider::StaticKeyProvider() = default;

StaticKeyProvider::StaticKeyProvider(const std::string& kid, const std::string& pemOrJwk, std::string* error) {
  addKey(kid, pemOrJwk, error);
}

StaticKeyProvider::~StaticKeyProvider() = default;

bool StaticKeyProvider::addKey(const std::string& kid, const std::string& pemOrJwk, std::string* error) {
  std::string why;
  std::shared_ptr<AsymmetricKey> key;
  const size_t first = pemOrJwk.find_first_not_of(" \t\r\n");
  if (first != std::string::npos && pemOrJwk[first] == '{') {
    qzVariantMapImpl jwk;
    if (!json::Json2Variant::Convert(pemOrJwk, jwk))
      why = "the JWK is not a JSON object";
    else
      key = KeyFromJwk(jwk, why);
  } else {
    key = AsymmetricKey::FromPem(pemOrJwk, &why);
    if (!key && why.empty())
      why = "not a PEM key";
  }
  if (!key) {
    if (error)
      *error = "Key {" + kid + "}: " + why;
    return false;
  }
  addKey(kid, std::move(key));
  return true;
}

void StaticKeyProvider::addKey(const std::string& kid, std::shared_ptr<AsymmetricKey> key) {
  if (!key)
    return;
  if (key->getKeyId().empty())
    key->setKeyId(kid);
  m_keys[kid] = std::move(key);
}

size_t StaticKeyProvider::size() const { return m_keys.size(); }

std::shared_ptr<AsymmetricKey> StaticKeyProvider::getKeyFromId(const std::string& kid, Alg alg, std::string* error) {
  auto it = m_keys.find(kid);
  if (it == m_keys.end())
    it = m_keys.find(std::string());
  if (it == m_keys.end()) {
    if (error)
      *error = "No such key {" + kid + "}";
    return nullptr;
  }
  if (!KeyFitsAlg(*it->second, alg)) {
    if (error)
      *error = "Key {" + kid + "} ( is not meant for the algorithm " + AlgToString(alg);
    return nullptr;
  }
  return it->second;
}

} // namespace qz::jwt
