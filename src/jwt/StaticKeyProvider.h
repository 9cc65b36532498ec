#pragma once

#include <HttpTools/jwt/KeyProvider.h>
#include <HttpTools/platform/Export.h>

#include <map>
#include <memory>
#include <string>

namespace qz::jwt {

/// Verification keys given in code, by key id, as PEM text (public or private key) or as one JWK
/// (a JSON object with "kty" RSA and "n", "e", or "kty" EC and "crv", "x", "y"). The key id ""
/// answers every key id that has no key of its own, so one known public key verifies in one line:
///
/// @code
/// qz::jwt::StaticKeyProvider keys("", publicKeyPem);
/// qz::jwt::Verifier verifier(qz::jwt::ES256, &keys);
/// @endcode
///
/// A key is handed out only for the algorithms of its kind: RSA keys for RS*, EC keys for the ES*
/// of their curve. Not thread-safe while keys are added; lookups may run concurrently afterwards.
class HTTPTOOLS_API StaticKeyProvider : public KeyProvider {
public:
  StaticKeyProvider();
  /// One key under `kid`; a key that cannot be read leaves the provider empty and says why in
  /// `*error`.
  StaticKeyProvider(const std::string& kid, const std::string& pemOrJwk, std::string* error = nullptr);
  ~StaticKeyProvider();
  StaticKeyProvider(const StaticKeyProvider&) = delete;
  StaticKeyProvider& operator=(const StaticKeyProvider&) = delete;

  /// Adds or replaces the key under `kid`. False, with the reason in `*error`, when the text is
  /// neither a PEM key nor a usable RSA or EC JWK.
  bool addKey(const std::string& kid, const std::string& pemOrJwk, std::string* error = nullptr);
  /// Adds or replaces a key already loaded; a null key is ignored.
  void addKey(const std::string& kid, std::shared_ptr<AsymmetricKey> key);
  size_t size() const; ///< the number of keys held

  /// The key under `kid` (or under "") if it may verify `alg`; otherwise null and, as the key
  /// store says it, "No such key {kid}" or "Key {kid} ( is not meant for the algorithm ALG".
  std::shared_ptr<AsymmetricKey> getKeyFromId(const std::string& kid, Alg alg, std::string* error) override;

private:
  std::map<std::string, std::shared_ptr<AsymmetricKey>> m_keys;
};

} // namespace qz::jwt
