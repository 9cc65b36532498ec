#include <HttpTools/jwt/KeyStore.h>

#include <HttpTools/http/HttpConnectionPool.h>
#include <HttpTools/http/HttpHelpers.h>
#include <HttpTools/jwt/KeyStore_p.h>
#include <HttpTools/platform/qzJson.h>
#include <HttpTools/platform/qzLog.h>
#include <HttpTools/platform/qzOpenSSLCrypto.h>
#include <HttpTools/platform/qzSystemUtils.h>

namespace qz::jwt {

using KeyWrapper = KeyStore::KeyStorePrivate::KeyWrapper;
using qz::qzOpenSSL::B64_UrlSafeNoPad;

namespace {
constexpr int kRsaMask = RS256 | RS384 | RS512; // 896
constexpr int kEcMask = ES256 | ES384 | ES512;  // 7168
constexpr int kMinJwkRsaBits = 2048;

const std::string* textMember(const qzVariantMapImpl& m, const char* name) {
  auto it = m.find(name);
  return it == m.end() ? nullptr : it->second.stringPtr();
}

bool decodeMember(const qzVariantMapImpl& m, const char* name, std::vector<char>& out) {
  const std::string* s = textMember(m, name);
  return s && qz::qzOpenSSL::base64Decode(*s, out, B64_UrlSafeNoPad);
}
} // namespace

// ---- KeyWrapper ----

KeyWrapper::KeyWrapper(std::shared_ptr<AsymmetricKey> key, int algMask)
    : m_key(std::move(key)), m_algMask(algMask), m_creationTime(qzSystemUtils::GetTimeBaseSec()) {}

KeyWrapper::KeyWrapper(const std::string& error) : m_creationTime(qzSystemUtils::GetTimeBaseSec()), m_error(error) {}

bool KeyWrapper::isExpired() const { return qzSystemUtils::GetTimeBaseSec() - m_creationTime > LifetimeSec; }

void KeyWrapper::resetKey(AsymmetricKey* key) {
  m_key.reset(key);
  m_creationTime = qzSystemUtils::GetTimeBaseSec();
}

// ---- KeyStorePrivate ----

KeyStore::KeyStorePrivate::KeyStorePrivate(qz::http::HttpConnectionPool& pool, const qz::Url& keySetUrl,
                                           bool validateSsl, qz::http::ProxyPolicy proxyPolicy, const qz::Url& proxyUrl)
    : m_pool(pool), m_url(keySetUrl) {
  m_params.sslValidatePolicy = validateSsl ? qz::http::SVP_VerifyPeerAndHost : qz::http::SVP_NoVerify;
  m_params.proxyPolicy = proxyPolicy;
  m_params.manualProxyUrl = proxyUrl;
}

const KeyWrapper* KeyStore::KeyStorePrivate::getKeyFromIdNoUpdate(const std::string& kid) const {
  auto it = m_cache.find(kid);
  if (it == m_cache.end() || it->second.wrapper->isExpired())
    return nullptr;
  return it->second.wrapper.get();
}

const KeyWrapper* KeyStore::KeyStorePrivate::getKeyFromId(const std::string& kid, bool forceReload) {
  if (!forceReload)
    if (const KeyWrapper* w = getKeyFromIdNoUpdate(kid))
      return w;
  if (m_unknownKidCooldownSec != 0 && m_downloaded &&
      qzSystemUtils::GetTimeBaseSec() - m_lastDownloadSec < int64_t(m_unknownKidCooldownSec))
    return nullptr;
  loadFromUrl();
  return getKeyFromIdNoUpdate(kid);
}

bool KeyStore::KeyStorePrivate::loadFromUrl() {
  std::string body, error;
  qz::http::HttpHelpers::HttpResult result;
  result.errorMessage = &error;
  bool ok;
  {
    qz::http::HttpConnectionLocker locker(m_pool, m_url);
    auto params = m_params;
    ok = qz::http::HttpHelpers::HttpGetJson(*locker, m_url, body, &result, &params);
  }
  qzVariantMapImpl set;
  if (ok && json::Json2Variant::Convert(body, set)) {
    m_downloaded = true;
    m_lastDownloadSec = qzSystemUtils::GetTimeBaseSec();
    return loadJWKSet(set);
  }
  if (ok)
    error = "invalid JSON key set";
  qzLogObject(qzLog::Error, "jwt") << "Failed to query key from url " << m_url.toDisplayableUrl() << ": " << error;
  return false;
}

bool KeyStore::KeyStorePrivate::loadJWKSet(const qzVariantMapImpl& set) {
  auto keys = set.find("keys");
  if (keys == set.end() || !keys->second.isList()) {
    qzLogObject(qzLog::Error, "jwt") << "Missing json field \"keys\" in JWK key set";
    return false;
  }
  for (const qzVariant& element : keys->second.toList()) {
    if (!element.isMap()) {
      qzLogObject(qzLog::Warning, "jwt") << "Ignoring malformed json list element";
      continue;
    }
    const qzVariantMapImpl& jwk = element.toMap();
    auto kidIt = jwk.find("kid");
    if (kidIt == jwk.end()) {
      qzLogObject(qzLog::Warning, "jwt") << "Missing kid in json list element";
      continue;
    }
    const std::string kid = kidIt->second.toString();

    // Purpose: only text values of "use" and "key_ops" count.
    const std::string* use = textMember(jwk, "use");
    const std::string* ops = textMember(jwk, "key_ops");
    if (!use && !ops) {
      registerError(kid, "Rejected (no field \"use\" or \"key_ops\")");
      continue;
    }
    bool forSignature = use ? (*use == "sig" && (!ops || *ops == "verify")) : (*ops == "verify");
    if (!forSignature) {
      registerError(kid, "Rejected (key is not meant for signature validation)");
      continue;
    }

    Alg alg = ALG_None;
    const std::string* algText = textMember(jwk, "alg");
    bool hasAlg = jwk.count("alg") != 0;
    if (hasAlg) {
      std::string text = jwk.at("alg").toString();
      alg = algText ? StringToAlg(*algText) : ALG_None;
      if (alg == ALG_None) {
        registerError(kid, "Rejected ( '" + text + "' unsupported value for 'alg' field)");
        continue;
      }
    }

    const std::string* kty = textMember(jwk, "kty");
    if (kty && *kty == "RSA") {
      std::vector<char> n, e;
      if (!decodeMember(jwk, "n", n) || !decodeMember(jwk, "e", e)) {
        registerError(kid, "Rejected (RSA n or e parameters are invalid)");
        continue;
      }
      if (hasAlg && !(alg & kRsaMask)) {
        registerError(kid, "Rejected (mismatch between \"alg\" and \"kty\")");
        continue;
      }
      auto key = std::make_shared<qz::qzOpenSSL::RSAKey>(n, e);
      if (!key->getError().empty()) {
        registerError(kid, "Rejected (RSA key error : " + key->getError() + ")");
        continue;
      }
      if (key->getBits() < kMinJwkRsaBits) { // RFC 7518 3.3
        registerError(kid, "Rejected (RSA key error : key of " + std::to_string(key->getBits()) + " bits, at least " +
                               std::to_string(kMinJwkRsaBits) + " required)");
        continue;
      }
      key->setKeyId(kid);
      cacheKey(kid, key, kRsaMask);
    } else if (kty && *kty == "EC") {
      std::vector<char> x, y;
      const std::string* crv = textMember(jwk, "crv");
      if (!crv || !decodeMember(jwk, "x", x) || !decodeMember(jwk, "y", y)) {
        registerError(kid, "Rejected (ECDSA crv, x, or y parameters are invalid)");
        continue;
      }
      EllipticCurve curve = StringToCurve(*crv);
      if (curve == qz::qzOpenSSL::EC_None) {
        registerError(kid, "Rejected (unrecognised ECDSA curve specified in \"crv\")");
        continue;
      }
      if (curve != qz::qzOpenSSL::EC_P256 && curve != qz::qzOpenSSL::EC_P384 && curve != qz::qzOpenSSL::EC_P521) {
        registerError(kid, "Rejected (non-standard curve specified in \"crv\")");
        continue;
      }
      if (hasAlg && !(alg & kEcMask)) {
        registerError(kid, "Rejected (mismatch between \"alg\" and \"kty\")");
        continue;
      }
      auto key = std::make_shared<qz::qzOpenSSL::EllipticCurveKey>(curve, x, y);
      if (!key->getError().empty()) {
        registerError(kid, "Rejected (ECDSA key error : " + key->getError() + ")");
        continue;
      }
      key->setKeyId(kid);
      cacheKey(kid, key, kEcMask);
    } else if (kty && *kty == "oct") {
      registerError(kid, "Rejected (key is symmetric)");
    } else {
      registerError(kid, "Rejected (invalid field \"kty\")");
    }
  }
  return true;
}

void KeyStore::KeyStorePrivate::store(const std::string& kid, KeyWrapper&& wrapper) {
  auto it = m_cache.find(kid);
  if (it == m_cache.end()) {
    m_ages.push_back(kid);
    m_cache.emplace(kid, Entry{std::make_unique<KeyWrapper>(std::move(wrapper)), std::prev(m_ages.end())});
    return;
  }
  *it->second.wrapper = std::move(wrapper);
  m_ages.splice(m_ages.end(), m_ages, it->second.age); // now the youngest
}

void KeyStore::KeyStorePrivate::cacheKey(const std::string& kid, std::shared_ptr<AsymmetricKey> key, int algMask) {
  store(kid, KeyWrapper(std::move(key), algMask));
}

void KeyStore::KeyStorePrivate::registerError(const std::string& kid, const std::string& errorText) {
  store(kid, KeyWrapper(errorText));
}

void KeyStore::KeyStorePrivate::clearExpired() {
  while (!m_ages.empty()) {
    auto oldest = m_cache.find(m_ages.front()); // every list entry has its cache entry
    if (!oldest->second.wrapper->isExpired())
      break;
    m_cache.erase(oldest);
    m_ages.pop_front();
  }
}

// ---- KeyStore ----

KeyStore::KeyStore(qz::http::HttpConnectionPool& pool, const qz::Url& keySetUrl, bool validateSsl,
                   qz::http::ProxyPolicy proxyPolicy, const qz::Url& proxyUrl)
    : d(new KeyStorePrivate(pool, keySetUrl, validateSsl, proxyPolicy, proxyUrl)) {}

KeyStore::~KeyStore() = default;

std::shared_ptr<AsymmetricKey> KeyStore::getKeyFromId(const std::string& kid, Alg alg, std::string* error) {
  d->clearExpired();
  const KeyWrapper* w = d->getKeyFromId(kid, false);
  if (!w) {
    if (error)
      *error = "No such key {" + kid + "}";
    return {};
  }
  if (w->getKey()) {
    if (alg & w->getAlgMask())
      return w->getKey();
    if (error)
      *error = "Key {" + kid + "} ( is not meant for the algorithm " + AlgToString(alg);
    return {};
  }
  if (error)
    *error = "Key {" + kid + "} is invalid : " + w->getError();
  return {};
}

void KeyStore::clearExpired() { d->clearExpired(); }

void KeyStore::setUnknownKidCooldownSec(unsigned seconds) { d->m_unknownKidCooldownSec = seconds; }

} // namespace qz::jwt
