#pragma once

#include <HttpTools/frame/Policies.h>
#include <HttpTools/jwt/KeyProvider.h>
#include <HttpTools/platform/Export.h>

#include <memory>
#include <string>

namespace qz {
class Url;
namespace http {
class HttpConnectionPool;
}
} // namespace qz

namespace qz::jwt {

/// Verification keys from a JSON Web Key Set (RFC 7517) served at one URL.
///
/// @code
/// qz::http::HttpConnectionPool pool;               // after qz::initializeHttpTools
/// qz::jwt::KeyStore keys(pool, qz::Url("https://idp.example/jwks.json"), true,
///                        qz::http::PP_NoProxy, qz::Url());
/// qz::jwt::Verifier verifier(qz::jwt::RS256 | qz::jwt::ES256, &keys);
/// @endcode
///
/// Usable RSA and EC signature keys, and the reason each unusable entry was refused, are cached by
/// key id for 12 hours. A key id that the cache does not know downloads the whole set again.
/// Not thread-safe: callers serialise lookups. The pool must outlive the store.
class HTTPTOOLS_API KeyStore : public KeyProvider {
public:
  /// Stores the settings; nothing is downloaded before the first lookup. `validateSsl` checks the
  /// server certificate and host name (otherwise neither is checked).
  KeyStore(qz::http::HttpConnectionPool& pool, const qz::Url& keySetUrl, bool validateSsl,
           qz::http::ProxyPolicy proxyPolicy, const qz::Url& proxyUrl);
  virtual ~KeyStore();
  KeyStore(const KeyStore&) = delete;
  KeyStore& operator=(const KeyStore&) = delete;

  /// The key for `kid` if it may verify `alg`; otherwise null and the reason in `*error`:
  /// "No such key {kid}", "Key {kid} ( is not meant for the algorithm ALG" or
  /// "Key {kid} is invalid : <why the entry was refused>".
  std::shared_ptr<AsymmetricKey> getKeyFromId(const std::string& kid, Alg alg, std::string* error) override;

  /// Drops the entries older than 12 hours.
  void clearExpired();

  /// Off (0) by default: every unknown key id triggers a download. When non-zero, an unknown key
  /// id triggers a download only if the last successful download is at least `seconds` old, so
  /// that tokens with random key ids cannot make the store hammer the key server. Known key ids
  /// are never affected.
  void setUnknownKidCooldownSec(unsigned seconds);

  class KeyStorePrivate;

private:
  std::unique_ptr<KeyStorePrivate> d;
};

} // namespace qz::jwt
